// Keyword texts: the Dependencies and Modifier builders, and the marking of
// boot-sequence entries by their enable checkboxes. (The import's search for
// an entry's checkbox: its boot-sequence test.)
#include "export/keyword.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "export/export_fixture.h"
#include "xml/node.h"

namespace {

using tvl::test::Attributes;

using tvl::test::kUntouched;

class KeywordTest : public tvl::test::ExportTest {
 protected:
  // Runs a builder; its outcome() goes to `described`.
  EFI_STATUS build(decltype(&createModifierNodes) builder, const char* text, std::string* described) {
    XML_NODE* out = kUntouched;
    EFI_STATUS status = builder(text, &out);
    *described = outcome(status, out);
    return status;
  }

  XML_NODE* entry(const char* device, const char* proto, const char* enabled) {
    std::vector<XML_NODE*> children = {node("Value", device)};
    if (proto) children.push_back(node("Modifier", proto, {{"Name", "Proto"}}));
    return node("ValueStruct", nullptr, enabled ? Attributes{{"Enabled", enabled}} : Attributes{}, children);
  }
  // Current tree with a UefiBootSeq list of one entry and a BootSeq list of
  // four, the third already marked.
  XML_NODE* bootTree() {
    return node("ConfigData", nullptr, {},
                {node("ConfigItem", nullptr, {}, {node("Name", "UefiBootSeq"), entry("Disk.1", nullptr, nullptr)}),
                 node("ConfigItem", nullptr, {},
                      {node("Name", "BootSeq"), entry("NIC.1", "IPv4", nullptr), entry("NIC.1", "IPv6", nullptr),
                       entry("Disk.1", nullptr, "true"), entry("Disk.1", nullptr, nullptr)})});
  }
  // The "Enabled" of every ValueStruct ("-" when unset), lists split by "/".
  static std::string enabledMarks(const XML_NODE* root) {
    std::string out;
    for (const XML_NODE* item = root->children; item; item = item->next) {
      if (!out.empty()) out += " /";
      for (const XML_NODE* e = item->children; e; e = e->next) {
        if (std::string(e->name) != "ValueStruct") continue;
        const XML_ATTRIBUTE* a = e->attributes;
        out += std::string(out.empty() ? "" : " ") + (a ? a->value : "-");
      }
    }
    return out;
  }
};

// (A condition without "=" and the ProgWrite ending: the export's keyword
// test.)
TEST_F(KeywordTest, BuildersTurnTokensIntoElements) {
  const EFI_STATUS ok = EFI_SUCCESS, bad = EFI_INVALID_PARAMETER;
  struct Case {
    const char* text; EFI_STATUS dependenciesStatus; const char* dependencies; EFI_STATUS modifiersStatus;
    const char* modifiers;
  } cases[] = {
      {"Alpha", ok, "", ok, ""},
      {"Alpha[SuppressIf:Beta=1][Gamma:7]", ok, "Dependencies{SuppressIf[Name=Beta]:1}", ok, "Modifier[Name=Gamma]:7"},
      {"A[Opt:x=y][ReadOnlyIf:T=a=b]", ok, "Dependencies{ReadOnlyIf[Name=T]:a=b}", ok, "Modifier[Name=Opt]:x=y"},
      {"A[SuppressIf:B=1][X:y][DisableIfNot:C=0]", ok, "Dependencies{SuppressIf[Name=B]:1 | DisableIfNot[Name=C]:0}",
       ok, "Modifier[Name=X]:y"},
      {"A[Opt:1][x ProgWrite=True y", ok, "", ok, "Modifier[Name=Opt]:1"},
      {"A[SuppressIf:B=1][Opt:1][Oops]", bad, "-", bad, "-"},
      {"A[Opt:1][progwrite=true]", bad, "-", bad, "-"},
      // A key runs to the next colon across brackets; a skipped token is
      // left just after its "[", a taken one after its "]".
      {"A[X][B:C]", ok, "", ok, "Modifier[Name=X][B]:C"},
      {"A[X][SuppressIf:B=1]", ok, "Dependencies{SuppressIf[Name=B]:1}", ok, "Modifier[Name=X][SuppressIf]:B=1"},
      {"A[ForceIf:B=1", bad, "-", ok, ""},
      {"A[Opt:1", ok, "", bad, "-"},
      // Targets and modifier values are octal-decoded, expected values kept
      // verbatim; modifier values are escaped, condition values are not.
      {R"(A[DisableIf:Set\040X=\0411][Lbl:a\074b\041])", ok, R"(Dependencies{DisableIf[Name=Set X]:\0411})", ok,
       "Modifier[Name=Lbl]:a&lt;b!"},
      {"A[K:<&>][L:&lt;][ForceIfNot:Q=<1>]", ok, "Dependencies{ForceIfNot[Name=Q]:<1>}", ok,
       "Modifier[Name=K]:&lt;&amp;&gt; | Modifier[Name=L]:&lt;"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    std::string described;
    EXPECT_EQ(build(DRIVER_FN(createDependenciesNode), c.text, &described), c.dependenciesStatus);
    EXPECT_EQ(described, c.dependencies);
    EXPECT_EQ(build(DRIVER_FN(createModifierNodes), c.text, &described), c.modifiersStatus);
    EXPECT_EQ(described, c.modifiers);
  }
  XML_NODE* out = nullptr;
  EXPECT_EQ(DRIVER_FN(createDependenciesNode)(nullptr, &out), EFI_INVALID_PARAMETER);
  EXPECT_EQ(DRIVER_FN(createModifierNodes)(nullptr, &out), EFI_INVALID_PARAMETER);
}

TEST_F(KeywordTest, BuildersFailCleanlyWhenThePoolRefuses) {
  const char* text = R"(A[SuppressIf:B\101=1][Opt:x\102][DisableIf:C=2][FQDD:N][ProgWrite=True])";
  struct Case {  // undecoded: an escape whose replacement could not be allocated stays as written
    decltype(&createModifierNodes) builder; const char* complete; const char* undecoded;
  } cases[] = {
      {DRIVER_FN(createDependenciesNode), "Dependencies{SuppressIf[Name=BA]:1 | DisableIf[Name=C]:2}",
       R"(Dependencies{SuppressIf[Name=B\101]:1 | DisableIf[Name=C]:2})"},
      {DRIVER_FN(createModifierNodes), "Modifier[Name=Opt]:xB | Modifier[Name=FQDD]:N",
       R"(Modifier[Name=Opt]:x\102 | Modifier[Name=FQDD]:N)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.complete);
    std::string described;
    ASSERT_EQ(build(c.builder, text, &described), EFI_SUCCESS);
    EXPECT_EQ(described, c.complete);
    size_t tolerated = 0;
    sweepAllocationFailures([&] { return build(c.builder, text, &described); },
                            [&](EFI_STATUS status, size_t k) {
                              if (status == EFI_SUCCESS) {
                                ++tolerated;
                                EXPECT_EQ(described, c.undecoded) << "attempt " << k;
                              } else {
                                EXPECT_EQ(status, EFI_OUT_OF_RESOURCES) << "attempt " << k;
                              }
                            });
    EXPECT_EQ(tolerated, 1u);
  }
}

TEST_F(KeywordTest, EnablesTheEntryThatTheCheckboxGoverns) {
  const char* unchanged = "- / - - true -";
  struct Case { const char* list; const char* text; const char* value; EFI_STATUS status; const char* marks; };
  const Case cases[] = {
      {"BootSeq", "BootSeqEnDis1[FQDD:NIC.1][Proto:IPv6]", "true", EFI_SUCCESS, "- / - true true -"},
      {"BootSeq", "BootSeqEnDis1[FQDD:NIC.1]", "false", EFI_SUCCESS, "- / false - true -"},
      {"BootSeq", "BootSeqEnDis2[FQDD:Disk.1]", "false", EFI_SUCCESS, "- / - - true false"},
      {"BootSeq", "X[SuppressIf:A=1][FQDD:NIC.1][Proto:IPv4]", "true", EFI_SUCCESS, "- / true - true -"},
      {"UefiBootSeq", "UefiBootSeqEnDis1[FQDD:Disk.1]", "true", EFI_SUCCESS, "true / - - true -"},
      {"BootSeq", "X[FQDD:NIC.1][Proto:IPv9]", "true", EFI_NOT_FOUND, unchanged},
      {"BootSeq", "X[FQDD:NIC.2][FQDD:NIC.1]", "true", EFI_NOT_FOUND, unchanged},
      {"BootSeq", "X[Proto:IPv4]", "true", EFI_NOT_FOUND, unchanged},
      {"HddSeq", "X[FQDD:Disk.1]", "true", EFI_NOT_FOUND, unchanged},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    XML_NODE* root = bootTree();
    EXPECT_EQ(DRIVER_FN(setEntryEnabled)(c.list, c.text, c.value, root), c.status);
    EXPECT_EQ(enabledMarks(root), c.marks);
    release(root);
  }

  XML_NODE* root = bootTree();
  EXPECT_EQ(DRIVER_FN(setEntryEnabled)(nullptr, "X[FQDD:NIC.1]", "true", root), EFI_INVALID_PARAMETER);
  EXPECT_EQ(DRIVER_FN(setEntryEnabled)("BootSeq", "X[FQDD:NIC.1]", "true", nullptr), EFI_INVALID_PARAMETER);
  XML_NODE* ipv6 = root->children->next->children->next->next;
  sweepAllocationFailures(
      [&] { return DRIVER_FN(setEntryEnabled)("BootSeq", "B[FQDD:NIC.1][Proto:IPv6]", "true", root); },
      [&](EFI_STATUS status, size_t k) {
        EXPECT_EQ(status, EFI_OUT_OF_RESOURCES) << "attempt " << k;
        EXPECT_EQ(enabledMarks(root), unchanged);
      },
      [&] { dropAttributes(ipv6); });
  release(root);
}

}  // namespace
