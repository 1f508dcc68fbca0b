// Records that ProcessForms makes: every field of a sample form set; current
// values left zero when the driver cannot give them; the device path in a
// store's configuration header.
#include <gtest/gtest.h>

#include <cstring>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using FormsRecordsTest = FormsTest;
using FormsValuesTest = FormsTest;
using FormsDevicePathTest = FormsTest;
using Bytes = std::vector<uint8_t>;
constexpr UINT16 kValueQuestions[] = {0x10, 0x12, 0x18};  // one-of, 32-bit numeric, 64-bit numeric in the variable

// The sample's records as dump() shows them (statement lines in hex).
const char* const kSampleRecords = R"(status 0 count 1
set formset title 1 help 2 languages en-US fr-FR x-UEFI
 store store 113
 store variable 109
 store other 93
 default stores 0:0 1:0 5:8
 form 1 title 3
  2 q0 p7 h0 = 9:0
  3 q0 p5 h2 two6 = 9:0
  5 q10 pc h2 w2 range 1..3/1 store0 &OFFSET=0002&WIDTH=0002 = 1:2 size1 reset
    option t9 = 1:1
    option ta = 1:2 flags 10 default
    option tb = 1:3 flags 20
  6 q11 pc h2 w1 store0 &OFFSET=0004&WIDTH=0001 = 4:1 checkbox 10
  7 q12 pc h2 w4 range a..1388/5 store0 &OFFSET=0008&WIDTH=0004 = 2:12345678 size2 read-only
    default 0 = 2:64
    default 1 = 2:c8
  8 q13 pc h2 w10 range 1..8/0 store0 &OFFSET=000c&WIDTH=0010 = 7:0 [0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0]
  1c q14 pc h2 w14 range 2..a/0 store0 &OFFSET=001e&WIDTH=0014 = 7:0 [48 0 69 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0]
  23 q15 pc h2 w3 store0 &OFFSET=0032&WIDTH=0003 = b:0 [3 1 2]
    option t9 = 0:1
    option ta = 0:2
    option tb = 0:3
  f q16 pc h2 = c:ref(q0 f2 0 d0)
  c q17 pc h2 = a:6
  4 q0 p0 h0 = 9:0
  7 q18 pc h2 w8 range 0..ffffffffffffffff/0 store1 &OFFSET=0000&WIDTH=0008 = 3:12340000 size3
  6 q19 pc h2 w1 = 4:0 locked checkbox 10
    default 0 = 4:1 from an expression, type 8
  1a q1a pc h2 w4 store0 &OFFSET=0038&WIDTH=0004 = 6:b0607e8
  1b q1b pc h2 w3 store0 &OFFSET=003c&WIDTH=0003 = 5:38220c
  d q0 pc h2 = 9:0
  7 q1c pc h2 w1 store2 = 0:0
  f q1d pc h2 = c:ref(q1a f2 0 d0)
  f q1e pc h2 = c:ref(q4 f3 other d0)
  f q1f pc h2 = c:ref(q6 f5 other d9)
  f q20 pc h2 = c:ref(q0 f0 0 d0)
 form 2 title 4
  3 q0 p5 h2 = 9:0
 form 8 title 4
  3 q0 p5 h2 = 9:0
)";

TEST_F(FormsRecordsTest, SampleFormSetFieldByField) {
  Sample sample;
  devices::Device* device = nullptr;
  auto parse = process({registerSample(sample, &device)});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  EXPECT_EQ(dump(*parse), kSampleRecords);
  const std::pair<EFI_GUID, std::u16string> stores[] = {
      {kStoreGuid, u"Setup"}, {kVariableGuid, u"Vars"}, {kOtherFormSetGuid, u""}};
  for (int v = 0; v < 3; ++v)
    EXPECT_EQ(text16(parse->set()->VarStoreBuffer[v]->ConfigHdr),
              hii::configHdr(stores[v].first, stores[v].second, device->devicePath()));
}

// A device that declares neither store, and a GetVariable that fails.
TEST_F(FormsValuesTest, ValuesStayZeroWhenTheDriverCannotGiveThem) {
  const Sample sample;
  auto parse = process({addDevice().addPackageList(sample.list())});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  for (UINT16 q : kValueQuestions) EXPECT_EQ(number(findQuestion(parse->set(), q)->HiiValue), 0u) << q;

  // A GetVariable that fails after writing into the buffer: those bytes are no value.
  struct FailingVariables {
    static EFI_STATUS EFIAPI get(const CHAR16*, const EFI_GUID*, UINT32*, UINTN* size, VOID* data) {
      std::memset(data, 0xEE, *size);
      return EFI_DEVICE_ERROR;
    }
  };
  const auto getVariable = rt()->GetVariable;
  rt()->GetVariable = FailingVariables::get;
  auto failed = process({registerSample(sample)});
  rt()->GetVariable = getVariable;
  ASSERT_EQ(failed->status, EFI_SUCCESS) << lastError().Message;
  EXPECT_EQ(number(findQuestion(failed->set(), kValueQuestions[2])->HiiValue), 0u);
}

// Fields of an 8-byte store: one that runs past its end is left zero.
TEST_F(FormsValuesTest, FieldsPastTheEndOfTheirStoreStayZero) {
  struct Field { UINT16 question, offset; ifr::Width width; UINT64 value; };
  const Field fields[] = {
      {0x31, 4, ifr::Width::U32, 0x08070605},  // ends at the end
      {0x33, 6, ifr::Width::U32, 0},           // two bytes past the end
      {0x35, 8, ifr::Width::U16, 0},           // starts at the end
  };
  OneForm form(8);
  for (const Field& f : fields)
    form.form.numeric(ifr::Numeric(f.question, form.s, form.s, f.width).store(1, f.offset).range(0, ~0ull));
  auto parse = processForm(form, {1, 2, 3, 4, 5, 6, 7, 8});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  for (const Field& f : fields) EXPECT_EQ(number(findQuestion(parse->set(), f.question)->HiiValue), f.value) << f.question;
}

// Hardware vendor nodes whose length fields say `length`, each with `room`
// zero bytes after its header, then the end node.
Bytes path(std::initializer_list<std::pair<UINT16, size_t>> nodes) {
  Bytes out;
  for (auto [length, room] : nodes) {
    out.insert(out.end(), {0x01, 0x04, UINT8(length & 0xFF), UINT8(length >> 8)});
    out.resize(out.size() + room);
  }
  out.insert(out.end(), {0x7F, 0xFF, 4, 0});
  return out;
}

// The driver handle's device path is outside input: impossible node lengths,
// or no end inside 64 KiB, give a header without a path. The handle has no
// configuration access, so every value stays zero.
TEST_F(FormsDevicePathTest, ImpossiblePathsGiveAHeaderWithoutPath) {
  static UINT8 marker;
  const EFI_GUID markerGuid = {0x11111111, 0x2222, 0x3333, {4, 4, 4, 4, 4, 4, 4, 4}};
  const struct { const char* name; Bytes path; bool kept; } rows[] = {  // an empty path: no device-path protocol
      {"no device path", {}, false},
      {"vendor node and end", path({{20, 16}}), true},
      {"node of length 0", path({{0, 16}}), false},
      {"node shorter than its header", path({{3, 16}}), false},
      // Two nodes of 32 KiB fill the 64 KiB a path may take, with no end node.
      {"no end within 64 KiB", path({{0x8000, 0x8000 - 4}, {0x8000, 0x8000 - 4}}), false},
      // The second node claims more than what is left of the 64 KiB.
      {"node past 64 KiB", path({{0x8000, 0x8000 - 4}, {0xFFFF, 0x10000}}), false},
  };
  const Sample sample;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EFI_HANDLE driver = nullptr;
    const EFI_GUID& guid = row.path.empty() ? markerGuid : gEfiDevicePathProtocolGuid;
    void* interface = row.path.empty() ? &marker : const_cast<uint8_t*>(row.path.data());
    ASSERT_EQ(platform().installProtocol(&driver, guid, interface), EFI_SUCCESS);
    EFI_HII_HANDLE handle = nullptr;
    ASSERT_EQ(database().addPackageList(sample.list(), driver, &handle), EFI_SUCCESS);
    {
      auto parse = process({handle});
      ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
      EXPECT_EQ(text16(parse->set()->VarStoreBuffer[0]->ConfigHdr),
                hii::configHdr(kStoreGuid, u"Setup", row.kept ? row.path : Bytes{}));
      for (UINT16 q : kValueQuestions) EXPECT_EQ(number(findQuestion(parse->set(), q)->HiiValue), 0u) << q;
    }
    EXPECT_EQ(database().removePackageList(handle), EFI_SUCCESS);
    EXPECT_EQ(platform().uninstallProtocol(driver, guid, interface), EFI_SUCCESS);
  }
}

}  // namespace
}  // namespace tvl::test::forms
