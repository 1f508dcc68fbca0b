// Shared pieces of the forms-processor tests.
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

inline const EFI_GUID kFormSetGuid = {0x3c1f0a52, 0x7e21, 0x4d6b, {0x9a, 0x10, 0x55, 0x21, 0x0b, 0xc4, 0x7e, 0x01}};
inline const EFI_GUID kOtherFormSetGuid = {0x3c1f0a52, 0x7e21, 0x4d6b, {0x9a, 0x10, 0x55, 0x21, 0x0b, 0xc4, 0x7e, 0x02}};
inline const EFI_GUID kListGuid = {0x8d2e4b10, 0x1111, 0x4c2a, {0x80, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07}};
inline const EFI_GUID kStoreGuid = {0xa1b2c3d4, 0xe5f6, 0x0718, {0x29, 0x3a, 0x4b, 0x5c, 0x6d, 0x7e, 0x8f, 0x90}};
inline const EFI_GUID kVariableGuid = {0x0badcafe, 0x1234, 0x5678, {0x9a, 0xbc, 0xde, 0xf0, 0x01, 0x23, 0x45, 0x67}};

// The result of one ProcessForms call; gives the form sets back when destroyed.
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

inline HII_STATEMENT_RECORD* findQuestion(const HII_FORMSET_RECORD* set, UINT16 questionId) {
  for (UINT64 f = 0; f < set->FormCount; ++f)
    for (UINT64 s = 0; s < set->Forms[f]->StatementCount; ++s)
      if (set->Forms[f]->Statements[s]->QuestionId == questionId) return set->Forms[f]->Statements[s];
  return nullptr;
}

inline std::u16string text16(const CHAR16* s) { return s ? std::u16string(s) : std::u16string(); }

inline UINT64 number(const HII_VALUE& v) {
  if (v.Type == EFI_IFR_TYPE_BOOLEAN) return v.Value[0];
  if (v.Type == EFI_IFR_TYPE_STRING || v.Type == EFI_IFR_TYPE_ACTION) return hiiValueNumber(v, 2);
  return hiiValueNumber(v, hiiNumberWidth(v.Type));
}

// Every nonzero field of the records, as text; one line per statement.
std::string dump(const Parse& parse);

// Raw IFR bytes for what the builder does not write.
using tvl::test::hii::cat;
using tvl::test::hii::u16le;
inline ifr::Bytes op(UINT8 opcode, bool scope, const ifr::Bytes& body) {
  ifr::Bytes out{opcode, UINT8((body.size() + 2) | (scope ? 0x80 : 0))};
  out.insert(out.end(), body.begin(), body.end());
  return out;
}
inline ifr::Bytes guidBytes(const EFI_GUID& g) {
  const UINT8* p = reinterpret_cast<const UINT8*>(&g);
  return ifr::Bytes(p, p + sizeof(g));
}

// A form set with every kind of statement over a buffer store (64 bytes),
// an EFI variable store (8 bytes) and a name/value store, three languages
// and a custom default store.
struct Sample {
  ifr::Strings strings{{"en-US", "fr-FR", "x-UEFI"}};
  UINT16 title = strings.add(u"Setup"), help = strings.add(u"Setup help"), formTitle = strings.add(u"Main"),
         form2Title = strings.add(u"Other"), text = strings.add(u"Text"), textTwo = strings.add(u"Second"),
         subtitle = strings.add(u"Sub"), custom = strings.add(u"Custom defaults"), option1 = strings.add(u"One"),
         option2 = strings.add(u"Two"), option3 = strings.add(u"Three"), prompt = strings.add(u"Prompt");

  std::vector<UINT8> setupBytes() const;
  ifr::Bytes list() const;
};

// One form (id 1) over the buffer store "Setup" (id 1); every text is `s`.
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
  devices::Device& addDevice();  // with a PCI device path of its own
  // A new device with the sample's storage and package list.
  EFI_HII_HANDLE registerSample(const Sample& sample, devices::Device** device = nullptr);

  std::unique_ptr<Parse> process(const std::vector<EFI_HII_HANDLE>& handles, const EFI_GUID* filter = nullptr);
  // Processes `f` on a new device whose "Setup" store holds `setup`.
  std::unique_ptr<Parse> processForm(const OneForm& f, const std::vector<UINT8>& setup);
  HII_FORMS_PROCESSOR_ERROR lastError();

  HII_FORMS_PROCESSOR2_PROTOCOL* forms_ = nullptr;

 private:
  std::unique_ptr<hii::HiiDatabase> database_;
  std::vector<std::unique_ptr<devices::Device>> devices_;
};

}  // namespace tvl::test::forms
