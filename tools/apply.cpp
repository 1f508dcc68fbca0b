// `tolvane apply` and `tolvane set`: a pending document applied to one
// device through the converter's NodeToHii (checks and encodes every
// numbered item) and NodeSaveToHii (routes the request to the device's
// RouteConfig), on the sample platform or offline, reported as a table with
// one row per item.
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "host/hii/config_string.h"
#include "host/offline/offline_platform.h"
#include "host/sample/sample_platform.h"
#include "host/sample/sample_state.h"
#include "import/import.h"
#include "tools/apply.h"
#include "tools/cli.h"
#include "tools/converter.h"

namespace tvl::cli {
namespace {

using host::sample::SampleDevice;
using host::sample::SamplePlatform;
using host::sample::statusText;

// A numbered item of a pending document: what the import is asked to
// visit.
struct NumberedItem {
  std::string name;
  unsigned long commitIndex = 0;
};

unsigned long commitIndexOf(const XML_NODE* item) {
  const std::string text = contents(child(item, "CommitIndex"));
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return 0;
  return std::stoul(text);
}

// Every ConfigItem under a Form whose CommitIndex is 1 or more, in
// document order.
std::vector<NumberedItem> numberedItems(XML_NODE* root) {
  std::vector<NumberedItem> items;
  for (XML_NODE* node = root; node;) {
    if (node->name && std::string(node->name) == "ConfigItem" && node->parent && node->parent->name &&
        std::string(node->parent->name) == "Form") {
      if (unsigned long n = commitIndexOf(node)) items.push_back({unescapeXml(contents(node->children)), n});
    } else if (node->children) {
      node = node->children;
      continue;
    }
    while (node && !node->next) node = node->parent;
    if (node) node = node->next;
  }
  return items;
}

// Whether one of the password items that SetBIOSPassword applies has a
// pending change: a CommitIndex other than 0 (one without contents counts,
// as it does for SetBIOSPassword).
bool hasPendingPassword(XML_NODE* root) {
  static const char* const kPasswordItems[] = {"SetupPassword", "SysPassword", "SHA256SetupPassword",
                                               "SHA256SystemPassword"};
  for (XML_NODE* node = root; node;) {
    if (node->name && std::string(node->name) == "ConfigItem") {
      const std::string name = contents(node->children);
      for (const char* item : kPasswordItems) {
        const XML_NODE* index = child(node, "CommitIndex");
        if (name == item && index && (!index->contents || std::strtoull(index->contents, nullptr, 10) != 0))
          return true;
      }
    } else if (node->children) {
      node = node->children;
      continue;
    }
    while (node && !node->next) node = node->parent;
    if (node) node = node->next;
  }
  return false;
}

// The table of a results document: one row per Operation.
struct Row {
  std::string name, oldValue, newValue, status, code;
};

std::string joined(const XML_NODE* detail, const char* element) {
  std::string text;
  bool first = true;
  for (const XML_NODE* c = detail ? detail->children : nullptr; c; c = c->next) {
    if (!c->name || std::string(c->name) != element) continue;
    text += (first ? "" : ", ") + unescapeXml(contents(c));
    first = false;
  }
  return text;
}

std::vector<Row> rowsOf(const XML_NODE* results) {
  std::vector<Row> rows;
  for (const XML_NODE* op = results ? results->children : nullptr; op; op = op->next) {
    if (!op->name || std::string(op->name) != "Operation") continue;
    const XML_NODE* detail = child(op, "Detail");
    rows.push_back({unescapeXml(contents(child(op, "Name"))), joined(detail, "OldValue"), joined(detail, "NewValue"),
                    contents(child(op, "Status")), contents(child(op, "ErrorCode"))});
  }
  return rows;
}

// The message of an error code of a results document: the driver's own
// table for the codes of the documents, the status name for a status the
// save path passed on as a code.
std::string codeMessage(host::Platform& platform, EFI_HANDLE driver, const std::string& code) {
  if (code.empty() || code.size() > 8 || code.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
    return {};
  const UINT64 value = std::stoull(code, nullptr, 16);
  if (value == 0) return {};
  const auto* table = static_cast<const ERROR_MESSAGE_ROW*>(platform.imageSymbol(driver, "ErrorMessageTable"));
  for (const ERROR_MESSAGE_ROW* row = table; row && row->Code != 0; ++row)
    if (row->Code == value && row->Message) return row->Message;
  if (value < 0x100) return statusText(EFIERR(value));
  return {};
}

void printTable(std::ostream& out, const std::vector<Row>& rows, host::Platform& platform, EFI_HANDLE driver) {
  std::vector<std::vector<std::string>> cells = {{"Item", "Old value", "New value", "Status", "Error"}};
  for (const Row& r : rows) {
    const std::string message = codeMessage(platform, driver, r.code);
    const bool success = r.status == "Success" && (r.code.empty() || r.code == "0");
    cells.push_back({r.name, r.oldValue, r.newValue, r.status,
                     success ? "" : r.code + (message.empty() ? "" : " " + message)});
  }
  std::vector<size_t> width(cells.front().size(), 0);
  for (const auto& line : cells)
    for (size_t i = 0; i < line.size(); ++i) width[i] = std::max(width[i], line[i].size());
  for (const auto& line : cells) {
    std::string text;
    for (size_t i = 0; i < line.size(); ++i)
      text += i + 1 < line.size() ? line[i] + std::string(width[i] - line[i].size() + 2, ' ') : line[i];
    while (!text.empty() && text.back() == ' ') text.pop_back();
    out << text << "\n";
  }
}

}  // namespace

// ---------------------------------------------------------------- ApplyJob
ApplyJob::ApplyJob(SamplePlatform& services, TOLVANE_PROTOCOL* converter, EFI_HANDLE driverImage, EFI_HANDLE device,
                   XML_NODE* pending)
    : services_(services), converter_(converter), driverImage_(driverImage), device_(device), pending_(pending) {}

ApplyJob::~ApplyJob() {
  if (results_) services_.xml()->XML_FreeNode(services_.xml(), results_);
  if (request_) services_.platform().bootServices()->FreePool(request_);
}

void ApplyJob::importValues() {
  CHAR16* request = nullptr;
  EFI_STATUS status = converter_->NodeToHii(converter_, device_, pending_, &request, &results_);
  if (request && request != request_) {
    // The import hands out its request whatever its status.
    if (request_) services_.platform().bootServices()->FreePool(request_);
    request_ = request;
  }
  calls_.push_back({"NodeToHii", status});
}

bool ApplyJob::saveable() const {
  if (!request_) return false;
  // An import that ended early (out of memory, say) holds a request for
  // part of the items only; one that judged every item holds the accepted
  // ones whatever the others did.
  for (const Call& call : calls_)
    if (std::string(call.operation) == "NodeToHii")
      return call.status == EFI_SUCCESS || call.status == EFI_DEVICE_ERROR || call.status == EFI_ABORTED;
  return false;
}

void ApplyJob::setPasswords() {
  EFI_STATUS status = converter_->SetBIOSPassword(converter_, pending_, &results_);
  calls_.push_back({"SetBIOSPassword", status});
}

void ApplyJob::saveValues() {
  EFI_STATUS status = converter_->NodeSaveToHii(converter_, device_, request_, &results_);
  calls_.push_back({"NodeSaveToHii", status});
}

std::string ApplyJob::requestText() const {
  return request_ ? utf8(std::u16string(reinterpret_cast<const char16_t*>(request_))) : std::string();
}

std::string ApplyJob::resultsDocument() {
  if (results_) return serialise(services_, results_);
  Tree empty(services_.xml());
  EFI_STATUS status = services_.xml()->XML_CreateNode(services_.xml(), "ConfigResults", &empty.root);
  if (status != EFI_SUCCESS) failure("XML_CreateNode failed: " + statusText(status));
  return serialise(services_, empty.root);
}

int ApplyJob::run(const ApplySettings& settings, const std::string& command, std::ostream& out) {
  const std::vector<NumberedItem> numbered = numberedItems(pending_);
  if (numbered.empty()) {
    out << "nothing to apply: no ConfigItem has a CommitIndex of 1 or more\n";
    if (!settings.resultsFile.empty()) writeDocument(settings.resultsFile, resultsDocument(), out);
    if (!settings.requestFile.empty()) writeDocument(settings.requestFile, "", out);
    return kExitOk;
  }
  // Items that another operation applies go before the import, one step
  // each, on the same pending tree and results document.
  if (hasPendingPassword(pending_)) setPasswords();
  importValues();
  const bool save = !settings.dryRun && saveable();
  if (save) saveValues();

  const std::vector<Row> rows = rowsOf(results_);
  size_t failed = 0;
  for (const Row& r : rows) failed += r.status != "Success" || (!r.code.empty() && r.code != "0");
  if (!rows.empty()) printTable(out, rows, services_.platform(), driverImage_);
  std::vector<std::string> passedOver;
  for (const NumberedItem& item : numbered) {
    bool reported = false;
    for (const Row& r : rows) reported = reported || r.name == item.name;
    if (!reported) passedOver.push_back(item.name);
  }
  out << rows.size() << (rows.size() == 1 ? " item: " : " items: ") << rows.size() - failed << " succeeded, "
      << failed << " failed\n";
  if (!passedOver.empty()) {
    out << "passed over without a result (unchanged, not writable or not found in the device's first form set):";
    for (const std::string& name : passedOver) out << " " << name;
    out << "\n";
  }
  if (settings.dryRun)
    out << "dry run: NodeSaveToHii not called, nothing written\n";
  else if (!request_)
    out << "no value to write: NodeSaveToHii not called\n";
  else if (!save)
    out << "NodeSaveToHii not called: the import did not end\n";

  if (!settings.requestFile.empty())
    writeDocument(settings.requestFile, request_ ? requestText() + "\n" : std::string(), out);
  if (!settings.resultsFile.empty()) writeDocument(settings.resultsFile, resultsDocument(), out);

  bool operationFailed = false;
  for (const Call& call : calls_) {
    if (call.status == EFI_SUCCESS) continue;
    operationFailed = true;
    std::cerr << "tolvane " << command << ": " << call.operation << " failed: " << statusText(call.status);
    if (std::string(call.operation) == "NodeSaveToHii")
      std::cerr << " (items reported as Success may not have been written)";
    std::cerr << "\n";
  }
  return operationFailed || failed ? kExitItemsFailed : kExitOk;
}

// ---------------------------------------------------------------- apply
namespace {

const std::vector<OptionDescription> kApplyOptions = {
    {"--device", true},       {"--hii", true},         {"--fqdd", true},   {"--package-list", true},
    {"--config", true},       {"--config-out", true},  {"--request-out", true},
    {"-o", true},             {"--output", true},      {"--dry-run", false}, {"--trace", true},
};

ApplySettings applySettings(const Options& options) {
  if (options.has("-o") && options.has("--output")) badInput("give the results file once, with -o or --output");
  ApplySettings settings;
  settings.dryRun = options.has("--dry-run");
  settings.resultsFile = options.has("-o") ? options.value("-o") : options.value("--output");
  settings.requestFile = options.value("--request-out");
  settings.tracing = options.has("--trace");
  settings.mask = settings.tracing ? parseTraceLevels(options.value("--trace")) : 0;
  return settings;
}

// The FQDD of a pending document: its first ConfigDataEntry's. A document
// whose first entry holds possible values is refused: the import would
// search its forms, which carry no commit indexes.
std::string documentFqdd(XML_NODE* root, const std::string& file) {
  XML_NODE* entry = findElement(root, "ConfigDataEntry");
  if (!entry) badInput(file + ": no ConfigDataEntry: not a configuration document");
  if (attribute(entry, "Type") == "PossibleValues")
    badInput(file + ": its first ConfigDataEntry holds the possible values; apply takes a current-values document "
                    "with new values and commit indexes (`tolvane export --current` writes one, `tolvane diff "
                    "--pending` numbers the changes)");
  return unescapeXml(attribute(entry, "FQDD"));
}

int applySample(const std::string& file, const Options& options, const ApplySettings& settings,
                const std::string& command, std::ostream& out) {
  SamplePlatform sample(poolMode());
  host::sample::PersistentStores stores = loadState(sample);
  Tree pending(sample.xml());
  parseDocument(sample, file, pending);
  const std::string named = documentFqdd(pending.root, file);
  const std::string fqdd = options.has("--device") ? options.value("--device") : named;
  if (fqdd.empty()) badInput(file + ": its ConfigDataEntry names no FQDD; name the device with --device FQDD");
  SampleDevice* device = selectDevices(sample, fqdd).front();
  TraceRoute traces(sample.log(), settings.mask, settings.tracing ? &std::cerr : nullptr);
  EFI_HANDLE image = nullptr;
  TOLVANE_PROTOCOL* converter = loadConverter(sample, &image);
  int code = kExitOk;
  {
    ApplyJob job(sample, converter, image, device->handle(), pending.root);
    code = job.run(settings, command, out);
  }
  try {
    stores.commit();
  } catch (const host::sample::StateError& e) {
    failure(std::string("cannot write the state file ") + e.what());
  }
  pending.reset();
  checkPool(sample.platform());
  return code;
}

// Every store of the list, one line each in the form --config reads: the
// whole store as one block, as ExtractConfig answers for a header alone.
std::string storeLines(host::offline::OfflineList& list) {
  std::string text;
  for (const auto& store : list.stores) {
    if (store.size == 0) continue;
    std::vector<uint8_t> bytes = list.device->storage(store.guid, store.name);
    bytes.resize(store.size, 0);
    const std::u16string header = list.device->configHdr(store.guid, store.name);
    text += utf8(header + host::hii::blockConfig(0, bytes.data(), bytes.size())) + "\n";
  }
  return text;
}

int applyFile(const std::string& file, const Options& options, const ApplySettings& settings, std::ostream& out) {
  const std::string hii = options.value("--hii");
  if (!options.has("--fqdd")) badInput("--hii FILE needs --fqdd TEXT: the FQDD the device takes");
  std::unique_ptr<host::offline::OfflinePlatform> offline = loadOffline(hii);
  const size_t index = choosePackageList(*offline, hii, options.value("--package-list"));
  host::offline::OfflineList& list = offline->lists()[index];
  if (!list.device) failure(list.name(index) + " is left out: the HII database refuses it: " + list.refusal);
  if (options.has("--config")) {
    const std::string config = options.value("--config");
    const std::vector<UINT8> bytes = readFile(config);
    try {
      offline->applyConfig(index, host::offline::parseConfigLines(std::string(bytes.begin(), bytes.end())));
    } catch (const host::offline::InputError& e) {
      badInput(config + ": " + e.what());
    }
  }
  std::u16string fqdd;
  for (unsigned char c : options.value("--fqdd")) fqdd += char16_t(c);
  try {
    offline->registerFqdd(index, fqdd);
  } catch (const std::runtime_error& e) {
    badInput(e.what());
  }
  SamplePlatform& services = offline->services();
  Tree pending(services.xml());
  parseDocument(services, file, pending);
  documentFqdd(pending.root, file);
  TraceRoute traces(services.log(), settings.mask, settings.tracing ? &std::cerr : nullptr);
  EFI_HANDLE image = nullptr;
  TOLVANE_PROTOCOL* converter = loadConverter(services, &image);
  int code = kExitOk;
  {
    ApplyJob job(services, converter, image, list.device->handle(), pending.root);
    code = job.run(settings, "apply", out);
  }
  if (options.has("--config-out")) writeDocument(options.value("--config-out"), storeLines(list), out);
  pending.reset();
  checkPool(offline->platform());
  return code;
}

}  // namespace

int runApply(const std::vector<std::string>& args, std::ostream& out) {
  std::vector<std::string> rest = args;
  const std::vector<std::string> operands = takeOperands(kApplyOptions, rest);
  Options options(kApplyOptions, rest);
  if (operands.empty()) badInput("name the pending document: tolvane apply PENDING.xml");
  if (operands.size() > 1) badInput("unexpected argument '" + operands[1] + "' (one pending document at a time)");
  if (options.has("--hii") && options.has("--device"))
    badInput("--device names a sample device; it cannot be combined with --hii");
  for (const char* option : {"--fqdd", "--package-list", "--config", "--config-out"})
    if (options.has(option) && !options.has("--hii")) badInput(std::string(option) + " goes with --hii FILE");
  const ApplySettings settings = applySettings(options);
  if (options.has("--hii")) return applyFile(operands.front(), options, settings, out);
  return applySample(operands.front(), options, settings, "apply", out);
}

// ---------------------------------------------------------------- set
namespace {

// The first ConfigItem whose first child holds `name`, as the import
// matches pending items.
XML_NODE* findItem(XML_NODE* root, const std::string& name) {
  const std::string escaped = escapeXml(name);
  for (XML_NODE* node = root; node;) {
    if (node->name && std::string(node->name) == "ConfigItem") {
      if (node->children && contents(node->children) == escaped) return node;
    } else if (node->children) {
      node = node->children;
      continue;
    }
    while (node && !node->next) node = node->parent;
    if (node) node = node->next;
  }
  return nullptr;
}

std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t comma; (comma = text.find(',', start)) != std::string::npos; start = comma + 1)
    parts.push_back(text.substr(start, comma - start));
  parts.push_back(text.substr(start));
  return parts;
}

// Writes `value` into the item's value: the Value of its first ValueStruct,
// or for an ordered list the names separated by commas, one per position.
void setItemValue(host::Platform& platform, XML_NODE* item, const std::string& name, const std::string& value) {
  std::vector<XML_NODE*> values;
  for (XML_NODE* c = item->children; c; c = c->next)
    if (c->name && std::string(c->name) == "ValueStruct") values.push_back(c);
  if (attribute(item, "Type") == "OrderedList") {
    const std::vector<std::string> names = splitList(value);
    if (names.size() != values.size())
      badInput(name + " is an ordered list of " + std::to_string(values.size()) + " entries; give all of them, " +
               "separated by commas (" + std::to_string(names.size()) + " given)");
    for (XML_NODE* entry : values) {
      const std::string index = attribute(entry, "Index");
      XML_NODE* text = child(entry, "Value");
      if (index.empty() || index.find_first_not_of("0123456789") != std::string::npos || index.size() > 6 ||
          std::stoul(index) >= names.size() || !text)
        badInput(name + ": an entry of the current list has no usable Index or Value");
      setContents(platform, text, escapeXml(names[std::stoul(index)]));
    }
    return;
  }
  XML_NODE* text = values.empty() ? nullptr : child(values.front(), "Value");
  if (!text) badInput(name + " holds no value that can be set (" + attribute(item, "Type") + ")");
  setContents(platform, text, escapeXml(value));
}

const std::vector<OptionDescription> kSetOptions = {
    {"--device", true}, {"-o", true}, {"--output", true}, {"--request-out", true}, {"--dry-run", false},
    {"--trace", true},
};

}  // namespace

int runSet(const std::vector<std::string>& args, std::ostream& out) {
  std::vector<std::string> rest = args;
  const std::vector<std::string> operands = takeOperands(kSetOptions, rest);
  Options options(kSetOptions, rest);
  if (!options.has("--device")) badInput("name the device with --device FQDD");
  if (operands.empty()) badInput("give at least one NAME=VALUE");
  std::vector<std::pair<std::string, std::string>> changes;
  for (const std::string& operand : operands) {
    const size_t eq = operand.find('=');
    if (eq == std::string::npos || eq == 0) badInput("'" + operand + "' is not NAME=VALUE");
    changes.emplace_back(operand.substr(0, eq), operand.substr(eq + 1));
  }
  const ApplySettings settings = applySettings(options);

  SamplePlatform sample(poolMode());
  host::sample::PersistentStores stores = loadState(sample);
  SampleDevice* device = selectDevices(sample, options.value("--device")).front();
  TraceRoute traces(sample.log(), settings.mask, settings.tracing ? &std::cerr : nullptr);
  EFI_HANDLE image = nullptr;
  TOLVANE_PROTOCOL* converter = loadConverter(sample, &image);
  // A fresh export's current values become the pending document.
  Tree possible(sample.xml()), current(sample.xml());
  EFI_STATUS status = converter->HiiToNode(converter, device->handle(), &possible.root, &current.root);
  if (status != EFI_SUCCESS) failure("HiiToNode failed: " + statusText(status));
  if (!current.root) failure("HiiToNode returned EFI_SUCCESS without documents");
  possible.reset();
  for (size_t i = 0; i < changes.size(); ++i) {
    const std::string& name = changes[i].first;
    XML_NODE* item = findItem(current.root, name);
    if (!item)
      badInput("no item " + name + " in the current values of " + options.value("--device") +
               " (`tolvane export --device " + options.value("--device") + " --current` lists them)");
    XML_NODE* commitIndex = child(item, "CommitIndex");
    if (!commitIndex) badInput(name + " has no CommitIndex: it cannot be applied");
    setItemValue(sample.platform(), item, name, changes[i].second);
    setContents(sample.platform(), commitIndex, std::to_string(i + 1));
  }
  int code = kExitOk;
  {
    ApplyJob job(sample, converter, image, device->handle(), current.root);
    code = job.run(settings, "set", out);
  }
  try {
    stores.commit();
  } catch (const host::sample::StateError& e) {
    failure(std::string("cannot write the state file ") + e.what());
  }
  current.reset();
  checkPool(sample.platform());
  return code;
}

}  // namespace tvl::cli
