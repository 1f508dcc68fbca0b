// `tolvane apply`, `set` and `diff` run as a program: the round trip on
// the sample BIOS setup, the table and exit code of each outcome,
// refusals, and the offline apply.
#include <gtest/gtest.h>

#include "tests/tools/cli_runner.h"

using tvl::test::Cli;
using tvl::test::has;
using tvl::test::Outcome;
using tvl::test::readAll;

namespace {

const std::string kBios = "BIOS.InternalSetup.1-1";
const std::string kNic = "NIC.Integrated.1-1-1";

// Where the ConfigItem named `name` lies in a one-line document: from its
// Name element to its end tag.
std::pair<size_t, size_t> itemSpan(const std::string& doc, const std::string& name) {
  size_t at = doc.find("<Name>" + name + "</Name>");
  if (at == std::string::npos) return {std::string::npos, std::string::npos};
  return {at, doc.find("</ConfigItem>", at)};
}

// The first Value of the item, or of the record, named `name`.
std::string elementAfter(const std::string& doc, const std::string& name, const std::string& element) {
  const size_t at = doc.find("<Name>" + name + "</Name>");
  if (at == std::string::npos) return "(no " + name + ")";
  const size_t open = doc.find("<" + element + ">", at);
  if (open == std::string::npos) return "(no " + element + ")";
  const size_t start = open + element.size() + 2;
  return doc.substr(start, doc.find("</" + element + ">", start) - start);
}
std::string valueOf(const std::string& doc, const std::string& name) { return elementAfter(doc, name, "Value"); }

// The document with the first `element` of the item `name` holding `text`.
std::string withElement(std::string doc, const std::string& name, const std::string& element, const std::string& text) {
  const size_t open = doc.find("<" + element + ">", itemSpan(doc, name).first) + element.size() + 2;
  return doc.replace(open, doc.find("</" + element + ">", open) - open, text);
}
std::string withValue(const std::string& doc, const std::string& name, const std::string& value) {
  return withElement(doc, name, "Value", value);
}

// The table's row of an item.
std::string rowOf(const std::string& out, const std::string& name) {
  const size_t at = ("\n" + out).find("\n" + name + " ");
  return at == std::string::npos ? "" : out.substr(at, out.find('\n', at) - at);
}

// A power limit other than `old` within the item's range (35 to 500 by 5).
std::string otherPowerLimit(const std::string& old) { return old == "200" ? "205" : "200"; }

std::string currentOf(const Cli& cli, const std::string& device) {
  return cli.ok({"export", "--device", device, "--current"});
}

// Writes both documents and the pending document of their difference
// (p.xml); the diff's listing.
std::string pendingOf(const Cli& cli, const std::string& before, const std::string& after) {
  cli.write("before.xml", before);
  cli.write("after.xml", after);
  return cli.ok({"diff", cli.path("before.xml"), cli.path("after.xml"), "--pending", "-o", cli.path("p.xml")});
}

// Export, edit, diff --pending, apply, export again.
TEST(ApplyCli, AnEditedExportAppliedShowsInTheNextExport) {
  Cli cli;
  const std::string before = currentOf(cli, kBios);
  const std::string old = valueOf(before, "ProcPwrLimit"), wanted = otherPowerLimit(old);
  EXPECT_TRUE(has(pendingOf(cli, before, withValue(before, "ProcPwrLimit", wanted)),
                  "ProcPwrLimit: " + old + " -> " + wanted + "\n"));

  const std::string row = rowOf(cli.ok({"apply", cli.path("p.xml"), "--dry-run"}), "ProcPwrLimit");
  for (const std::string& shown : {"  " + old + "  ", "  " + wanted + "  ", std::string("Success")})
    EXPECT_TRUE(has(row, shown));
  EXPECT_EQ(valueOf(currentOf(cli, kBios), "ProcPwrLimit"), old) << "a dry run writes nothing";

  cli.ok({"apply", cli.path("p.xml")});  // its results document: tools.firmware_applies_match_host
  EXPECT_EQ(valueOf(currentOf(cli, kBios), "ProcPwrLimit"), wanted);

  // A failed apply (its table and codes: SetTablesEveryItemWithItsCode)
  // leaves the store as it was.
  const std::string now = currentOf(cli, kBios);
  pendingOf(cli, now, withValue(now, "ProcPwrLimit", "9999"));
  EXPECT_EQ(cli.run({"apply", cli.path("p.xml")}).exitCode, 3);
  EXPECT_EQ(valueOf(currentOf(cli, kBios), "ProcPwrLimit"), wanted);
}

// One row per item in the order given, each with its status and code; the
// exit code is 0 only when every item succeeded.
TEST(ApplyCli, SetTablesEveryItemWithItsCode) {
  Cli cli;
  const std::string limit = otherPowerLimit(valueOf(currentOf(cli, kBios), "ProcPwrLimit"));
  struct Item {
    std::string assignment, name, shown;  // shown: in the item's row
  };
  const std::string outside = "Failure  301 Integer: Value is outside of mix/max range.";
  const std::string unknown = "Failure  101 Enumeration: Option not found.";
  const struct Case {
    std::vector<Item> items;
    const char* importStatus;  // null: EFI_SUCCESS
  } cases[] = {
      {{{"ProcPwrLimit=" + limit, "ProcPwrLimit", "Success"}}, nullptr},
      {{{"ProcPwrLimit=9999", "ProcPwrLimit", outside}}, "EFI_DEVICE_ERROR"},
      {{{"MemOpMode=NoSuchMode", "MemOpMode", unknown}}, "EFI_DEVICE_ERROR"},
      {{{"MemOpMode=NoSuchMode", "MemOpMode", unknown}, {"ProcPwrLimit=" + limit, "ProcPwrLimit", "Success"}},
       "EFI_ABORTED"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"set", "--device", kBios, "--dry-run"};
    for (const Item& item : c.items) args.push_back(item.assignment);
    Outcome r = cli.run(args);
    SCOPED_TRACE(c.items.front().assignment + ": " + r.out + r.err);
    EXPECT_EQ(r.exitCode, c.importStatus ? 3 : 0);
    EXPECT_EQ(bool(has(r.err, "NodeToHii failed: " + std::string(c.importStatus ? c.importStatus : ""))),
              c.importStatus != nullptr);
    size_t previous = 0;
    for (const Item& item : c.items) {
      const std::string row = rowOf(r.out, item.name);
      EXPECT_TRUE(has(row, item.shown));
      const size_t at = r.out.find(row);
      EXPECT_GT(at, previous) << "rows in the order given";
      previous = at;
    }
  }
  EXPECT_EQ(readAll(cli.path("platform.state")), "") << "dry runs leave the state file alone";
}

// An ordered list set by names in a new order encodes as a request that a
// list with the old order does not.
TEST(ApplyCli, SetTakesAnOrderedListByNames) {
  Cli cli;
  const std::string current = currentOf(cli, kBios);
  const auto span = itemSpan(current, "UefiBootSeq");
  std::vector<std::string> names;
  for (size_t at = current.find("<Value>", span.first); at < span.second; at = current.find("<Value>", at + 1))
    names.push_back(current.substr(at + 7, current.find("</Value>", at) - at - 7));
  ASSERT_GE(names.size(), 2u);
  std::string requests[2];
  for (int i = 0; i < 2; ++i) {
    std::string list = names[i] + "," + names[1 - i];  // the first two, swapped in the second run
    for (size_t n = 2; n < names.size(); ++n) list += "," + names[n];
    cli.ok({"set", "--device", kBios, "--dry-run", "--request-out", cli.path("request.txt"), "UefiBootSeq=" + list});
    requests[i] = readAll(cli.path("request.txt"));
  }
  EXPECT_NE(requests[0], requests[1]);
  Outcome wrong = cli.run({"set", "--device", kBios, "UefiBootSeq=" + names[0]});
  EXPECT_EQ(wrong.exitCode, 2);
  EXPECT_TRUE(has(wrong.err, "UefiBootSeq is an ordered list of " + std::to_string(names.size()) + " entries"));
}

// Documents with nothing to do exit 0 and say so; a numbered item that
// the import passes over is named.
TEST(ApplyCli, NothingToApplyIsSaidAndExitsZero) {
  Cli cli;
  cli.write("current.xml", currentOf(cli, kBios));
  EXPECT_TRUE(has(cli.ok({"apply", cli.path("current.xml"), "-o", cli.path("results.xml")}), "nothing to apply"));
  EXPECT_EQ(readAll(cli.path("results.xml")), "<ConfigResults/>\n");

  // An unchanged value of a device other than the BIOS setup.
  const std::string same = cli.ok({"set", "--device", kNic, "LnkSpeed=" + valueOf(currentOf(cli, kNic), "LnkSpeed")});
  for (const char* line : {"passed over without a result", " LnkSpeed\n", "NodeSaveToHii not called"})
    EXPECT_TRUE(has(same, line));
}

TEST(ApplyCli, WrongArgumentsAndDocumentsAreRefused) {
  Cli cli;
  cli.ok({"export", "--device", kBios, "--possible", "-o", cli.path("possible.xml")});
  cli.write("broken.xml", std::string("<ConfigData>\n<ConfigDataEntry FQDD=\"x\">\n</ConfigData>"));
  cli.write("other.xml", std::string("<Something/>"));
  cli.write("nofqdd.xml", std::string("<ConfigData><ConfigDataEntry Type=\"CurrentValues\"/></ConfigData>"));
  const std::string possible = cli.path("possible.xml");
  const struct Case {
    std::vector<std::string> args;
    const char* says;
  } cases[] = {
      {{"apply"}, "name the pending document"}, {{"apply", possible, possible}, "one pending document at a time"},
      {{"apply", cli.path("missing.xml")}, "cannot read"},
      {{"apply", cli.path("broken.xml")}, "broken.xml: line 3, column"},
      {{"apply", cli.path("other.xml")}, "no ConfigDataEntry"},
      {{"apply", cli.path("nofqdd.xml")}, "names no FQDD; name the device with --device FQDD"},
      {{"apply", possible}, "holds the possible values"},
      {{"apply", possible, "--device", "NIC.Integrated.9-9-9"}, "possible values"},
      {{"apply", cli.path("nofqdd.xml"), "--device", "NIC.Integrated.9-9-9"}, "no device with FQDD"},
      {{"apply", possible, "--config-out", "x"}, "--config-out goes with --hii FILE"},
      {{"apply", possible, "--hii", "f", "--device", kBios}, "cannot be combined with --hii"},
      {{"apply", possible, "--hii", cli.path("missing.hii")}, "--hii FILE needs --fqdd TEXT"},
      {{"set", "ProcPwrLimit=200"}, "name the device with --device FQDD"},
      {{"set", "--device", kBios}, "give at least one NAME=VALUE"},
      {{"set", "--device", kBios, "ProcPwrLimit"}, "'ProcPwrLimit' is not NAME=VALUE"},
      {{"set", "--device", kBios, "=5"}, "'=5' is not NAME=VALUE"},
      {{"set", "--device", kBios, "NoSuchItem=1"}, "no item NoSuchItem in the current values"},
      {{"set", "--device", kBios, "EmbSata=AhciMode"}, "EmbSata holds no value that can be set"},
      {{"diff", possible}, "give two documents"}, {{"diff", possible, possible, "-o", "x"}, "-o goes with --pending"},
      {{"diff", possible, possible}, "holds possible values"},
  };
  for (const Case& c : cases) {
    Outcome r = cli.run(c.args);
    EXPECT_EQ(r.exitCode, 2) << r.err;
    EXPECT_TRUE(has(r.err, c.says));
  }
  EXPECT_EQ(readAll(cli.path("platform.state")), "");
}

// The listing names exactly the changed items; the pending document
// numbers them 1, 2, ... in document order and every other item 0 (applied
// in that order: SetTablesEveryItemWithItsCode).
TEST(ApplyCli, DiffNumbersTheChangedItemsInDocumentOrder) {
  Cli cli;
  const std::string before = currentOf(cli, kBios);
  cli.write("before.xml", before);
  std::string after = withValue(before, "MemTest", valueOf(before, "MemTest") == "true" ? "false" : "true");
  after = withValue(after, "ProcPwrLimit", otherPowerLimit(valueOf(before, "ProcPwrLimit")));
  {  // the boot sequence's first entry switched
    const auto span = itemSpan(after, "UefiBootSeq");
    const size_t enabled = after.find("Enabled=\"", span.first) + 9;
    after.replace(enabled, after[enabled] == 't' ? 4 : 5, after[enabled] == 't' ? "false" : "true");
  }
  {  // AssetTag left out
    const auto span = itemSpan(after, "AssetTag");
    const size_t open = after.rfind("<ConfigItem", span.first);
    after.erase(open, span.second + 13 - open);
  }
  cli.write("after.xml", after);
  const std::vector<std::string> changed = {"UefiBootSeq", "ProcPwrLimit", "MemTest"};  // in document order

  const std::string listing = cli.ok({"diff", cli.path("before.xml"), cli.path("after.xml")});
  for (const std::string& name : changed) EXPECT_TRUE(has("\n" + listing, "\n" + name + ": "));
  EXPECT_TRUE(has(listing, "only in " + cli.path("before.xml") + ": AssetTag = "));
  EXPECT_TRUE(has(listing, "3 changed, 1 only in"));
  // The current entry of a combined document compares the same.
  cli.ok({"export", "--device", kBios, "-o", cli.path("combined.xml")});
  std::string expected = listing;
  for (size_t at; (at = expected.find(cli.path("before.xml"))) != std::string::npos;)
    expected.replace(at, cli.path("before.xml").size(), cli.path("combined.xml"));
  EXPECT_EQ(cli.ok({"diff", cli.path("combined.xml"), cli.path("after.xml")}), expected);

  std::string numbered = after;
  for (size_t i = 0; i < changed.size(); ++i) numbered = withElement(numbered, changed[i], "CommitIndex", std::to_string(i + 1));
  EXPECT_EQ(cli.ok({"diff", cli.path("combined.xml"), cli.path("after.xml"), "--pending"}), numbered);
}

// ---------------------------------------------------------------- offline
// --config-out writes what --config reads, and the stores a real apply
// leaves export as the edited document.
TEST(ApplyCli, OfflineStoresExportAsTheEditedDocument) {
  Cli cli;
  cli.ok({"export-hii", "--device", kBios, "-o", cli.path("bios.hii")});
  auto offline = [&](std::vector<std::string> args) {  // on the exported file, must succeed
    args.insert(args.end(), {"--hii", cli.path("bios.hii"), "--fqdd", kBios});
    return cli.ok(args);
  };
  const std::string current = offline({"export", "--current"});
  std::string edited = withValue(current, "ProcPwrLimit", otherPowerLimit(valueOf(current, "ProcPwrLimit")));
  edited = withValue(edited, "AssetTag", valueOf(current, "AssetTag") + "-1");
  pendingOf(cli, current, edited);

  offline({"apply", cli.path("p.xml"), "--dry-run", "--config-out", cli.path("before.cfg")});
  offline({"apply", cli.path("p.xml"), "--dry-run", "--config", cli.path("before.cfg"), "--config-out",
           cli.path("again.cfg")});
  EXPECT_EQ(readAll(cli.path("again.cfg")), readAll(cli.path("before.cfg")));
  offline({"apply", cli.path("p.xml"), "--config-out", cli.path("after.cfg")});
  EXPECT_EQ(offline({"export", "--current", "--config", cli.path("after.cfg")}), edited);
}

// The pending document with the password item `name` numbered `index` and
// holding `base64` (marked as Base64), whatever its Value looked like.
std::string withPassword(std::string doc, const std::string& name, const std::string& index, const std::string& base64) {
  doc = withElement(doc, name, "CommitIndex", index);
  const auto [from, to] = itemSpan(doc, name);
  // The export writes an empty password value as <Value/>.
  const size_t empty = doc.find("<Value/>", from), value = empty < to ? empty : doc.find("<Value>", from);
  const size_t end = empty < to ? empty + 8 : doc.find("</Value>", value) + 8;
  return doc.replace(value, end - value, "<Value Encoding=\"Base64\">" + base64 + "</Value>");
}

// Password items of a BIOS document go through SetBIOSPassword before the
// import, into the same results, and a refused change fails the apply.
TEST(ApplyCli, PasswordItemsGoFirstThroughSetBIOSPassword) {
  Cli cli;
  const std::string before = currentOf(cli, kBios);
  const std::string wanted = otherPowerLimit(valueOf(before, "ProcPwrLimit"));
  pendingOf(cli, before, withValue(before, "ProcPwrLimit", wanted));
  const std::string pending = readAll(cli.path("p.xml"));
  cli.write("set.xml", withPassword(pending, "SetupPassword", "1", "QWJj"));  // "Abc"

  // The password's own result (and no value in it): tools.firmware_applies_match_host.
  cli.ok({"apply", cli.path("set.xml"), "-o", cli.path("results.xml")});
  const std::string results = readAll(cli.path("results.xml"));
  EXPECT_EQ(elementAfter(results, "ProcPwrLimit", "Status"), "Success") << results;
  EXPECT_LT(results.find("<Name>SetupPassword</Name>"), results.find("<Name>ProcPwrLimit</Name>")) << results;

  // The older service checks the old password the document gives.
  cli.ok({"password", "--service", "legacy"});
  cli.write("wrong.xml", withPassword(withPassword(pending, "SetupPassword", "1", "WHl6"),  // "Xyz"
                                      "OldSetupPassword", "0", "YmFk"));                     // "bad"
  Outcome wrong = cli.run({"apply", cli.path("wrong.xml")});
  EXPECT_EQ(wrong.exitCode, 3) << wrong.out << wrong.err;
  EXPECT_TRUE(has(rowOf(wrong.out, "SetupPassword"), "Failure  603 Password: Old password is incorrect."));
  EXPECT_TRUE(has(wrong.err, "tolvane apply: SetBIOSPassword failed: EFI_ABORTED"));
}

}  // namespace
