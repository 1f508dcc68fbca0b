// Shared pieces of the forms-processor tests: a platform with the HII
// database and the forms service loaded, sample devices, a raw package-list
// database for malformed input, and readers of the records.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "export/records/records.h"
#include "host/devices/device.h"
#include "host/hii/config_string.h"
#include "host/hii/device_path.h"
#include "host/hii/hii_database.h"
#include "host/ifr/ifr_builder.h"
#include "host/ifr/strings.h"
#include "support/fixture.h"
#include "uefi/services.h"

namespace tvl::test::forms {

namespace ifr = tvl::host::ifr;
namespace hii = tvl::host::hii;
namespace devices = tvl::host::devices;

extern const EFI_GUID kFormSetGuid;
extern const EFI_GUID kOtherFormSetGuid;
extern const EFI_GUID kListGuid;
extern const EFI_GUID kStoreGuid;
extern const EFI_GUID kVariableGuid;

// The result of one ProcessForms call; gives the form sets back when it
// goes out of scope.
struct Parse {
  HII_FORMS_PROCESSOR2_PROTOCOL* forms = nullptr;
  EFI_STATUS status = EFI_SUCCESS;
  UINTN count = 0;
  HII_FORMSET_RECORD** sets = nullptr;

  Parse() = default;
  Parse(const Parse&) = delete;
  Parse& operator=(const Parse&) = delete;
  ~Parse() {
    if (sets) forms->DestroyFormSets(forms, count, sets);
  }
  HII_FORMSET_RECORD* set(size_t i = 0) const { return sets[i]; }
};

// The first statement of a form set with `questionId`.
HII_STATEMENT_RECORD* findQuestion(const HII_FORMSET_RECORD* set, UINT16 questionId);

std::u16string text16(const CHAR16* s);  // empty for null
UINT64 number(const HII_VALUE& v);       // the number at the width of its type

// Raw IFR bytes for what the builder does not write.
ifr::Bytes cat(std::initializer_list<ifr::Bytes> parts);
ifr::Bytes op(UINT8 opcode, bool scope, const ifr::Bytes& body);  // header with the length computed
ifr::Bytes guidBytes(const EFI_GUID& g);
ifr::Bytes le16(UINT16 v);

// A database that exports fixed bytes for one handle, for package lists
// the real database would refuse.
class RawDatabase {
 public:
  explicit RawDatabase(host::Platform& platform);
  ~RawDatabase();
  void setBytes(std::vector<UINT8> bytes) { bytes_ = std::move(bytes); }
  EFI_HII_HANDLE handle() const { return reinterpret_cast<EFI_HII_HANDLE>(0x1000); }

 private:
  static EFI_STATUS EFIAPI exportLists(const EFI_HII_DATABASE_PROTOCOL* This, EFI_HII_HANDLE Handle,
                                       UINTN* BufferSize, EFI_HII_PACKAGE_LIST_HEADER* Buffer);
  static EFI_STATUS EFIAPI packageListHandle(const EFI_HII_DATABASE_PROTOCOL* This, EFI_HII_HANDLE Handle,
                                            EFI_HANDLE* DriverHandle);
  struct Table {
    EFI_HII_DATABASE_PROTOCOL protocol;
    RawDatabase* self;
  };
  host::Platform& platform_;
  Table table_{};
  EFI_HANDLE handle_ = nullptr;
  std::vector<UINT8> bytes_;
};

// A form set with every kind of statement over a buffer store (64 bytes)
// and an EFI variable store (8 bytes), three languages and a custom
// default store.
struct Sample {
  ifr::Strings strings{{"en-US", "fr-FR", "x-UEFI"}};
  UINT16 title = strings.add(u"Setup");
  UINT16 help = strings.add(u"Setup help");
  UINT16 formTitle = strings.add(u"Main");
  UINT16 form2Title = strings.add(u"Other");
  UINT16 text = strings.add(u"Text");
  UINT16 textTwo = strings.add(u"Second");
  UINT16 subtitle = strings.add(u"Sub");
  UINT16 custom = strings.add(u"Custom defaults");
  UINT16 option1 = strings.add(u"One");
  UINT16 option2 = strings.add(u"Two");
  UINT16 option3 = strings.add(u"Three");
  UINT16 prompt = strings.add(u"Prompt");

  std::vector<UINT8> setupBytes() const;
  ifr::FormSetBuilder formSet() const;
  ifr::Bytes list() const;
};

class FormsTest : public PlatformTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The real HII database; created by SetUp unless useRawDatabase is set.
  hii::HiiDatabase& database() { return *database_; }
  // A new device with a PCI device path of its own.
  devices::Device& addDevice();
  // A new device with the sample's storage and package list.
  EFI_HII_HANDLE registerSample(const Sample& sample, devices::Device** device = nullptr);

  std::unique_ptr<Parse> process(const std::vector<EFI_HII_HANDLE>& handles, const EFI_GUID* filter = nullptr);
  HII_FORMS_PROCESSOR_ERROR lastError();

  HII_FORMS_PROCESSOR2_PROTOCOL* forms_ = nullptr;
  bool useRawDatabase_ = false;
  std::unique_ptr<RawDatabase> raw_;

 private:
  std::unique_ptr<hii::HiiDatabase> database_;
  std::vector<std::unique_ptr<devices::Device>> devices_;
};

}  // namespace tvl::test::forms
