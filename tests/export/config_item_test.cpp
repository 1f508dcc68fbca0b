// ConfigItem typing and state attributes, and the localised display
// elements.
#include "export/config_item.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "export/export_fixture.h"
#include "uefi/ifr.h"

namespace {

using tvl::test::FormSetWithLanguages;
using tvl::test::statusName;

using tvl::test::kUntouched;

class ConfigItemTest : public tvl::test::ExportTest {
 protected:
  // The current tree's item, or the possible one's.
  std::string item(HII_STATEMENT_RECORD* s, const CHAR16* fqdd, const char* keyword, EFI_STATUS expected,
                   bool possible = false) {
    XML_NODE* out = kUntouched;
    EFI_STATUS status = possible ? DRIVER_FN(createPossibleConfigItem)(s, fqdd, &out)
                                 : DRIVER_FN(createCurrentConfigItem)(s, fqdd, keyword, &out);
    EXPECT_EQ(status, expected) << statusName(status);
    return outcome(status, out);
  }
};

// The attributes the export's own tests do not show: any non-zero reset
// flag, a password's type on NIC devices, opcodes that make no item.
TEST_F(ConfigItemTest, TypesEachOpcodeInBothTrees) {
  struct Case {  // possible "-": EFI_NOT_FOUND in both trees
    UINT8 opcode; const char16_t* fqdd; UINT8 reset; UINT64 maximum; const char* possible; const char* current;
  } cases[] = {
      {EFI_IFR_CHECKBOX_OP, nullptr, 2, 300, "ConfigItem[Type=Checkbox;RebootNeeded=true]",
       "ConfigItem[Type=Checkbox]"},
      {EFI_IFR_PASSWORD_OP, u"FC.Slot.2-NIC", 0, 300, "ConfigItem[Type=String;Min=1;Max=300]",
       "ConfigItem[Type=String]"},
      {EFI_IFR_PASSWORD_OP, u"nic.Slot.1", 0, 300, "ConfigItem[Type=Password;Min=1;Max=300]",
       "ConfigItem[Type=Password]"},
      {EFI_IFR_IMAGE_OP, nullptr, 0, 300, "-", "-"},
      {EFI_IFR_ACTION_OP, nullptr, 0, 300, "-", "-"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "opcode " << int(c.opcode) << " reset " << int(c.reset));
    HII_STATEMENT_RECORD s{};
    s.Operand = c.opcode;
    s.ResetRequired = c.reset;
    s.Minimum = 1;
    s.Maximum = c.maximum;
    s.Step = 5;
    s.ValueType = 1;
    const CHAR16* fqdd = reinterpret_cast<const CHAR16*>(c.fqdd);
    const EFI_STATUS expected = std::string(c.possible) == "-" ? EFI_NOT_FOUND : EFI_SUCCESS;
    EXPECT_EQ(item(&s, fqdd, nullptr, expected, true), c.possible);
    EXPECT_EQ(item(&s, fqdd, "Name", expected), c.current);
  }
  XML_NODE* out = kUntouched;
  EXPECT_EQ(DRIVER_FN(createPossibleConfigItem)(nullptr, nullptr, &out), EFI_INVALID_PARAMETER);
  EXPECT_EQ(DRIVER_FN(createCurrentConfigItem)(nullptr, nullptr, "Name", &out), EFI_INVALID_PARAMETER);
  EXPECT_EQ(out, kUntouched);
}

TEST_F(ConfigItemTest, StateAttributesFollowTheRecordsUnlessTheKeywordLiftsThem) {
  const UINT8 box = EFI_IFR_CHECKBOX_OP, ref = EFI_IFR_REF_OP, txt = EFI_IFR_TEXT_OP, one = EFI_IFR_ONE_OF_OP;
  struct Case {  // condition -1: none, else result type * 256 + first value byte; item: after "Type="
    const char* name; UINT8 opcode, readOnlyFlag, locked, readOnlyMark, suppressedMark; int condition;
    const char* keyword; const char* item;
  } cases[] = {
      {"read-only flag", box, 3, 0, 0, 0, -1, nullptr, "Checkbox;ReadOnly=true"},
      {"locked", box, 0, 1, 0, 0, -1, "C", "Checkbox;ReadOnly=true"},
      {"read-only mark", box, 0, 0, 1, 0, -1, "C", "Checkbox;ReadOnly=true"},
      {"read-only mark 2", box, 0, 0, 2, 0, -1, "C", "Checkbox"},
      {"condition true", box, 0, 0, 0, 0, EFI_IFR_TYPE_BOOLEAN * 256 + 1, "C", "Checkbox;ReadOnly=true"},
      {"condition false", box, 0, 0, 0, 0, EFI_IFR_TYPE_BOOLEAN * 256, "C", "Checkbox"},
      {"condition not boolean", box, 0, 0, 0, 0, EFI_IFR_TYPE_NUM_SIZE_8 * 256 + 1, "C", "Checkbox"},
      {"reference with mark", ref, 1, 1, 1, 0, -1, "R", "FormReference"},
      {"text, ProgWrite true", txt, 0, 0, 0, 0, -1, "T[ProgWrite:TrUe]", "String"},
      {"text, ProgWrite yes", txt, 0, 0, 0, 0, -1, "T[ProgWrite:yes]", "String;ReadOnly=true"},
      {"text, lower-case key", txt, 0, 0, 0, 0, -1, "T[progwrite:true]", "String;ReadOnly=true"},
      {"text, ProgWrite truex", txt, 0, 0, 0, 0, -1, "T[ProgWrite:truex]", "String;ReadOnly=true"},
      {"text, second ProgWrite", txt, 0, 0, 0, 0, -1, "T[A][ProgWrite:no][ProgWrite:true]", "String"},
      {"suppressed, ProgUnhide", one, 0, 0, 0, 1, -1, "O[ProgUnhide:TRUE]", "Enumeration"},
      {"suppressed, ProgUnhide 1", one, 0, 0, 0, 1, -1, "O[ProgUnhide:1]", "Enumeration;Suppressed=true"},
      {"suppressed mark 2", one, 0, 0, 0, 2, -1, "O", "Enumeration"},
      {"text suppressed", txt, 0, 0, 0, 1, -1, "T", "String;ReadOnly=true;Suppressed=true"},
      {"text suppressed, ProgWrite", txt, 0, 0, 0, 1, -1, "T[ProgWrite:true]", "String;Suppressed=true"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    HII_STATEMENT_RECORD s{};
    HII_EXPRESSION_RECORD condition{};
    s.Operand = c.opcode;
    s.ReadOnlyFlag = c.readOnlyFlag;
    s.LockedFlag = c.locked;
    s.ReadOnlyMark = c.readOnlyMark;
    s.SuppressedMark = c.suppressedMark;
    if (c.condition >= 0) {
      condition.Result.Type = UINT8(c.condition >> 8);
      condition.Result.Value[0] = UINT8(c.condition);
      s.ReadOnlyCondition = &condition;
    }
    EXPECT_EQ(item(&s, nullptr, c.keyword, EFI_SUCCESS), std::string("ConfigItem[Type=") + c.item + "]");
  }
}

// (A statement without an en-US prompt: the sample export's language tests.)
TEST_F(ConfigItemTest, DisplayElementsComeFromEnglishOnly) {
  EFI_HII_HANDLE handle = addStrings({{"en-US", {u"Title <1>", u"", u"Plain"}},
                                      {"fr-FR", {u"Titre", u"Vide", u"Simple"}},
                                      {"x-UEFI", {u"TitleKw", u"Kw", u"PlainKw"}}});
  struct Case { std::vector<std::string> languages; EFI_STRING_ID id; EFI_STATUS status; const char* elements; };
  const Case cases[] = {
      {{"en-US", "fr-FR", "x-UEFI"}, 1, EFI_SUCCESS, "DisplayName[Lang=en-US]:Title &lt;1&gt;"},
      {{"x-uefi", "en-US", "en-US"}, 3, EFI_SUCCESS, "DisplayName[Lang=en-US]:Plain | DisplayName[Lang=en-US]:Plain"},
      {{"EN-us", "fr-FR"}, 1, EFI_NOT_FOUND, "-"},
      {{"en-US"}, 9, EFI_NOT_FOUND, "-"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.languages) + " id " + std::to_string(c.id));
    FormSetWithLanguages formSet(c.languages);
    XML_NODE* out = kUntouched;
    EFI_STATUS status = DRIVER_FN(createLangStringNodes)("DisplayName", c.id, &formSet.record, handle, &out);
    EXPECT_EQ(status, c.status);
    EXPECT_EQ(outcome(status, out), c.elements);
  }

  FormSetWithLanguages english({"en-US"});
  XML_NODE* out = kUntouched;  // a statement without help text has string id 0
  EXPECT_EQ(DRIVER_FN(createLangStringNodes)("Help", 0, &english.record, handle, &out), EFI_INVALID_PARAMETER);
  EXPECT_EQ(out, kUntouched);
}

}  // namespace
