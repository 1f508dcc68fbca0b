// Records that ProcessForms makes from form packages of a sample device:
// statements with their fields, storage and current values; options and
// defaults; the form set's languages, stores and forms. (Defaults, option
// flags and the form-set filter on the sample platform's forms: the command
// line's forms tests and the export's golden document.)
#include <gtest/gtest.h>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using FormsRecordsTest = FormsTest;

// The sample's records as dump() shows them: statement lines in hex, texts
// by string id (prompt c, help 2), values as type:number, stores by their
// index in VarStoreBuffer.
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

}  // namespace
}  // namespace tvl::test::forms
