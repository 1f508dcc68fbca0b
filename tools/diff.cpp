// `tolvane diff`: what differs between two current-values documents of a
// device, and the pending document that turns the first into the second.
#include <algorithm>
#include <iostream>
#include <map>

#include "host/platform.h"
#include "host/sample/sample_platform.h"
#include "tools/cli.h"
#include "tools/converter.h"

namespace tvl::cli {
namespace {

using host::sample::SamplePlatform;

bool named(const XML_NODE* node, const char* name) { return node && node->name && std::string(node->name) == name; }

std::string lower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
  return text;
}

// A ConfigItem with what identifies it and what it holds.
struct Item {
  XML_NODE* node = nullptr;
  std::string name;       // its first child's text, unescaped
  std::string key;        // name and partition index
  std::string value;      // every ValueStruct's Value, Index and Enabled, as written
  std::string shown;      // the values for people
  bool firstFormSet = false;  // among the forms the import searches
};

// The partition index of an item: the text of the first of its children
// that has an attribute whose value is "Partition" (any letter case).
std::string partitionOf(const XML_NODE* item) {
  for (const XML_NODE* c = item->children; c; c = c->next) {
    if (!c->contents) continue;
    for (const XML_ATTRIBUTE* a = c->attributes; a; a = a->next)
      if (a->value && lower(a->value) == "partition") return lower(c->contents);
  }
  return {};
}

Item describe(XML_NODE* node) {
  Item item;
  item.node = node;
  item.name = unescapeXml(contents(node->children));
  item.key = contents(node->children) + '\x1f' + partitionOf(node);
  for (const XML_NODE* c = node->children; c; c = c->next) {
    if (!named(c, "ValueStruct")) continue;
    const XML_NODE* value = child(c, "Value");
    const std::string index = attribute(c, "Index"), enabled = attribute(c, "Enabled");
    item.value += index + '\x1f' + enabled + '\x1f' + attribute(value, "Encoding") + '\x1f' + contents(value) + '\x1e';
    item.shown += (item.shown.empty() ? "" : ", ") + unescapeXml(contents(value)) +
                  (enabled == "false" ? " (disabled)" : "");
  }
  if (item.shown.empty()) item.shown = "(no value)";
  return item;
}

// Every ConfigItem under a Form of `entry`, in document order.
std::vector<Item> itemsOf(XML_NODE* entry) {
  std::vector<Item> items;
  XML_NODE* firstForm = findElement(entry, "Form");
  for (XML_NODE* node = entry->children; node;) {
    if (named(node, "ConfigItem") && named(node->parent, "Form")) {
      items.push_back(describe(node));
      items.back().firstFormSet = firstForm && node->parent->parent == firstForm->parent;
    } else if (node->children && !named(node, "ConfigItem")) {
      node = node->children;
      continue;
    }
    while (node && node != entry && !node->next) node = node->parent;
    if (!node || node == entry) break;
    node = node->next;
  }
  return items;
}

// The current-values entry of a document: the ConfigDataEntry typed
// CurrentValues (of a combined document, say), else the first entry;
// possible values are refused.
XML_NODE* currentEntry(XML_NODE* root, const std::string& file) {
  XML_NODE* first = findElement(root, "ConfigDataEntry");
  if (!first) badInput(file + ": no ConfigDataEntry: not a configuration document");
  for (XML_NODE* e = first; e; e = e->next)
    if (named(e, "ConfigDataEntry") && attribute(e, "Type") == "CurrentValues") return e;
  if (attribute(first, "Type") == "PossibleValues")
    badInput(file + ": holds possible values; diff compares current-values documents (`tolvane export --current`)");
  return first;
}

// Unlinks and frees every sibling of `keep`, so that a combined document
// keeps its current-values entry alone.
void keepOnly(XML_PROTOCOL* xml, XML_NODE* keep) {
  XML_NODE* parent = keep->parent;
  if (!parent) return;
  for (XML_NODE* node = parent->children; node;) {
    XML_NODE* next = node->next;
    if (node != keep) {
      if (node->previous) node->previous->next = node->next;
      if (node->next) node->next->previous = node->previous;
      if (parent->children == node) parent->children = node->next;
      node->next = node->previous = nullptr;
      node->parent = nullptr;
      xml->XML_FreeNode(xml, node);
    }
    node = next;
  }
}

const std::vector<OptionDescription> kDiffOptions = {{"--pending", false}, {"-o", true}, {"--output", true}};

}  // namespace

int runDiff(const std::vector<std::string>& args, std::ostream& out) {
  std::vector<std::string> rest = args;
  const std::vector<std::string> operands = takeOperands(kDiffOptions, rest);
  Options options(kDiffOptions, rest);
  if (operands.size() != 2) badInput("give two documents: tolvane diff BEFORE.xml AFTER.xml");
  if (options.has("-o") && options.has("--output")) badInput("give the output file once, with -o or --output");
  const std::string output = options.has("-o") ? options.value("-o") : options.value("--output");
  if (!output.empty() && !options.has("--pending")) badInput("-o goes with --pending: it names the pending document");
  const bool pending = options.has("--pending");

  host::Platform platform(poolMode());
  {
    SamplePlatform services(platform, {});
    Tree before(services.xml()), after(services.xml());
    parseDocument(services, operands[0], before);
    parseDocument(services, operands[1], after);
    XML_NODE* beforeEntry = currentEntry(before.root, operands[0]);
    XML_NODE* afterEntry = currentEntry(after.root, operands[1]);
    if (attribute(beforeEntry, "FQDD") != attribute(afterEntry, "FQDD"))
      std::cerr << "tolvane diff: warning: the documents name different devices, "
                << unescapeXml(attribute(beforeEntry, "FQDD")) << " and " << unescapeXml(attribute(afterEntry, "FQDD"))
                << "\n";

    // Items pair by name and partition; a name that occurs several times
    // pairs its occurrences in order.
    std::map<std::string, std::vector<const Item*>> unpaired;
    const std::vector<Item> old = itemsOf(beforeEntry);
    for (const Item& item : old) unpaired[item.key].push_back(&item);
    for (auto& entry : unpaired) std::reverse(entry.second.begin(), entry.second.end());
    std::vector<Item> now = itemsOf(afterEntry);

    // With --pending the document goes to standard output unless -o names
    // a file, and the listing to standard error.
    std::ostream& listing = pending && output.empty() ? std::cerr : out;
    size_t changed = 0, added = 0, removed = 0;
    for (Item& item : now) {
      auto& candidates = unpaired[item.key];
      XML_NODE* commitIndex = child(item.node, "CommitIndex");
      if (candidates.empty()) {
        listing << "only in " << operands[1] << ": " << item.name << " = " << item.shown << "\n";
        ++added;
        if (pending && commitIndex) setContents(platform, commitIndex, "0");
        continue;
      }
      const Item* counterpart = candidates.back();
      candidates.pop_back();
      const bool differs = counterpart->value != item.value;
      if (differs) {
        ++changed;
        listing << item.name << ": " << counterpart->shown << " -> " << item.shown << "\n";
        if (pending && !item.firstFormSet)
          std::cerr << "tolvane diff: warning: " << item.name
                    << " is not in the first form set; the import applies only items among the forms of the first\n";
      }
      if (!pending) continue;
      if (!commitIndex) {
        if (!differs) continue;
        badInput(operands[1] + ": " + item.name + " has no CommitIndex: not a current-values document");
      }
      setContents(platform, commitIndex, differs ? std::to_string(changed) : "0");
    }
    for (const auto& entry : unpaired)
      for (const Item* item : entry.second) {
        listing << "only in " << operands[0] << ": " << item->name << " = " << item->shown << "\n";
        ++removed;
      }
    if (changed + added + removed == 0)
      listing << "no differences\n";
    else
      listing << changed << " changed, " << removed << " only in " << operands[0] << ", " << added << " only in "
              << operands[1] << "\n";
    if (pending) {
      keepOnly(services.xml(), afterEntry);
      writeDocument(output, serialise(services, after.root), out, output.empty());
      if (!output.empty())
        out << "the pending document numbers " << changed << (changed == 1 ? " item" : " items") << "\n";
    }
  }
  checkPool(platform);
  return kExitOk;
}

}  // namespace tvl::cli
