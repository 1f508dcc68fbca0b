// Shared pieces of the forms-processor tests: a platform with the HII
// database and the forms service loaded, sample devices, raw IFR bytes and
// readers of the records.
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
#include "tests/host/hii/hii_bytes.h"
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
// goes out of scope (held by unique_ptr, never copied).
struct Parse {
  HII_FORMS_PROCESSOR2_PROTOCOL* forms = nullptr;
  EFI_STATUS status = EFI_SUCCESS;
  UINTN count = 0;
  HII_FORMSET_RECORD** sets = nullptr;
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
using tvl::test::hii::cat;
using tvl::test::hii::u16le;
ifr::Bytes op(UINT8 opcode, bool scope, const ifr::Bytes& body);  // header with the length computed
ifr::Bytes guidBytes(const EFI_GUID& g);

// A form set with every kind of statement (dates, times, references of
// every length, a reset button, a form map, an image suppressed while
// one-of 0x10 is 3) over a buffer store (64 bytes), an EFI variable store
// (8 bytes) and a name/value store, three languages and a custom default
// store.
struct Sample {
  ifr::Strings strings{{"en-US", "fr-FR", "x-UEFI"}};
  UINT16 title = strings.add(u"Setup"), help = strings.add(u"Setup help"), formTitle = strings.add(u"Main"),
         form2Title = strings.add(u"Other"), text = strings.add(u"Text"), textTwo = strings.add(u"Second"),
         subtitle = strings.add(u"Sub"), custom = strings.add(u"Custom defaults"), option1 = strings.add(u"One"),
         option2 = strings.add(u"Two"), option3 = strings.add(u"Three"), prompt = strings.add(u"Prompt");

  std::vector<UINT8> setupBytes() const;
  ifr::Bytes list() const;
};

// A form set with one form (id 1) over the buffer store "Setup" (id 1) of
// `storeSize` bytes; every text is the one en-US string `s`.
struct OneForm {
  explicit OneForm(UINT16 storeSize) : form((fs.varStore(1, kStoreGuid, "Setup", storeSize), fs.form(1, s))) {}
  ifr::Strings strings{{"en-US"}};
  UINT16 s = strings.add(u"x");
  ifr::FormSetBuilder fs{kFormSetGuid, s, s};
  ifr::FormBuilder& form;
};

class FormsTest : public PlatformTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Installs the real HII database, before the service is loaded.
  virtual void installDatabase();

  hii::HiiDatabase& database() { return *database_; }
  // A new device with a PCI device path of its own.
  devices::Device& addDevice();
  // A new device with the sample's storage and package list.
  EFI_HII_HANDLE registerSample(const Sample& sample, devices::Device** device = nullptr);

  std::unique_ptr<Parse> process(const std::vector<EFI_HII_HANDLE>& handles, const EFI_GUID* filter = nullptr);
  // Registers `f` on a new device whose "Setup" store holds `setup`, and
  // processes it.
  std::unique_ptr<Parse> processForm(const OneForm& f, const std::vector<UINT8>& setup);
  HII_FORMS_PROCESSOR_ERROR lastError();

  HII_FORMS_PROCESSOR2_PROTOCOL* forms_ = nullptr;

 private:
  std::unique_ptr<hii::HiiDatabase> database_;
  std::vector<std::unique_ptr<devices::Device>> devices_;
};

}  // namespace tvl::test::forms
