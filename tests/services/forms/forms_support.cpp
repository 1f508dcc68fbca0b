#include "forms_support.h"

#include <cstring>

namespace tvl::test::forms {

const EFI_GUID kFormSetGuid = {0x3c1f0a52, 0x7e21, 0x4d6b, {0x9a, 0x10, 0x55, 0x21, 0x0b, 0xc4, 0x7e, 0x01}};
const EFI_GUID kOtherFormSetGuid = {0x3c1f0a52, 0x7e21, 0x4d6b, {0x9a, 0x10, 0x55, 0x21, 0x0b, 0xc4, 0x7e, 0x02}};
const EFI_GUID kListGuid = {0x8d2e4b10, 0x1111, 0x4c2a, {0x80, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07}};
const EFI_GUID kStoreGuid = {0xa1b2c3d4, 0xe5f6, 0x0718, {0x29, 0x3a, 0x4b, 0x5c, 0x6d, 0x7e, 0x8f, 0x90}};
const EFI_GUID kVariableGuid = {0x0badcafe, 0x1234, 0x5678, {0x9a, 0xbc, 0xde, 0xf0, 0x01, 0x23, 0x45, 0x67}};

namespace {
template <typename Match>
HII_STATEMENT_RECORD* findStatement(const HII_FORMSET_RECORD* set, Match match) {
  for (UINT64 f = 0; f < set->FormCount; ++f)
    for (UINT64 s = 0; s < set->Forms[f]->StatementCount; ++s)
      if (match(set->Forms[f]->Statements[s])) return set->Forms[f]->Statements[s];
  return nullptr;
}
}  // namespace

HII_STATEMENT_RECORD* findQuestion(const HII_FORMSET_RECORD* set, UINT16 questionId) {
  return findStatement(set, [questionId](HII_STATEMENT_RECORD* s) { return s->QuestionId == questionId; });
}

HII_STATEMENT_RECORD* findPrompt(const HII_FORMSET_RECORD* set, UINT16 prompt) {
  return findStatement(set, [prompt](HII_STATEMENT_RECORD* s) { return s->Prompt == prompt; });
}

std::u16string text16(const CHAR16* s) { return s ? std::u16string(s) : std::u16string(); }

UINT64 number(const HII_VALUE& v) {
  if (v.Type == EFI_IFR_TYPE_BOOLEAN) return v.Value[0];
  if (v.Type == EFI_IFR_TYPE_STRING || v.Type == EFI_IFR_TYPE_ACTION) return hiiValueNumber(v, 2);
  return hiiValueNumber(v, hiiNumberWidth(v.Type));
}

ifr::Bytes cat(std::initializer_list<ifr::Bytes> parts) {
  ifr::Bytes out;
  for (const ifr::Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

ifr::Bytes op(UINT8 opcode, bool scope, const ifr::Bytes& body) {
  ifr::Bytes out{opcode, UINT8((body.size() + 2) | (scope ? 0x80 : 0))};
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

ifr::Bytes guidBytes(const EFI_GUID& g) {
  const UINT8* p = reinterpret_cast<const UINT8*>(&g);
  return ifr::Bytes(p, p + sizeof(g));
}

ifr::Bytes le16(UINT16 v) { return {UINT8(v), UINT8(v >> 8)}; }

// ---------------------------------------------------------------- raw database
RawDatabase::RawDatabase(host::Platform& platform) : platform_(platform) {
  table_.protocol.ExportPackageLists = exportLists;
  table_.protocol.GetPackageListHandle = packageListHandle;
  table_.self = this;
  EFI_GUID guid = EFI_HII_DATABASE_PROTOCOL_GUID;
  platform_.installProtocol(&handle_, guid, &table_.protocol);
}

RawDatabase::~RawDatabase() {
  EFI_GUID guid = EFI_HII_DATABASE_PROTOCOL_GUID;
  platform_.uninstallProtocol(handle_, guid, &table_.protocol);
}

EFI_STATUS EFIAPI RawDatabase::exportLists(const EFI_HII_DATABASE_PROTOCOL* This, EFI_HII_HANDLE Handle,
                                           UINTN* BufferSize, EFI_HII_PACKAGE_LIST_HEADER* Buffer) {
  auto* self = reinterpret_cast<const Table*>(This)->self;
  if (Handle != self->handle()) return EFI_NOT_FOUND;
  if (*BufferSize < self->bytes_.size()) {
    *BufferSize = self->bytes_.size();
    return EFI_BUFFER_TOO_SMALL;
  }
  *BufferSize = self->bytes_.size();
  if (!self->bytes_.empty()) std::memcpy(Buffer, self->bytes_.data(), self->bytes_.size());
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI RawDatabase::packageListHandle(const EFI_HII_DATABASE_PROTOCOL*, EFI_HII_HANDLE, EFI_HANDLE*) {
  return EFI_NOT_FOUND;
}

// ---------------------------------------------------------------- fixture
void FormsTest::SetUp() {
  PlatformTest::SetUp();
  if (useRawDatabase_)
    raw_ = std::make_unique<RawDatabase>(platform());
  else
    database_ = std::make_unique<hii::HiiDatabase>(platform());
  load("forms_service");
  EFI_GUID guid = HII_FORMS_PROCESSOR2_PROTOCOL_GUID;
  forms_ = locate<HII_FORMS_PROCESSOR2_PROTOCOL>(guid);
  ASSERT_NE(forms_, nullptr);
  markBaseline();
}

void FormsTest::TearDown() {
  devices_.clear();
  database_.reset();
  raw_.reset();
  PlatformTest::TearDown();
}

devices::Device& FormsTest::addDevice() {
  std::vector<uint8_t> path = hii::DevicePathBuilder().pciRoot(0).pci(UINT8(devices_.size() + 1), 0).build();
  devices_.push_back(std::make_unique<devices::Device>(platform(), *database_, path));
  return *devices_.back();
}

std::unique_ptr<Parse> FormsTest::process(const std::vector<EFI_HII_HANDLE>& handles, const EFI_GUID* filter) {
  auto parse = std::make_unique<Parse>();
  parse->forms = forms_;
  std::vector<EFI_HII_HANDLE> copy = handles;
  parse->status = forms_->ProcessForms(forms_, copy.data(), copy.size(), filter, &parse->count, &parse->sets);
  return parse;
}

HII_FORMS_PROCESSOR_ERROR FormsTest::lastError() {
  HII_FORMS_PROCESSOR_ERROR error{};
  EXPECT_EQ(forms_->GetLastError(forms_, &error), EFI_SUCCESS);
  return error;
}

}  // namespace tvl::test::forms
