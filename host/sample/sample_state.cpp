#include "host/sample/sample_state.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "host/hii/config_string.h"
#include "host/ifr/ifr_dump.h"

namespace tvl::host::sample {
namespace {

constexpr char kMagic[] = "tolvane-state";
constexpr char kFileName[] = "platform.state";
// Bounds of what a state file may hold: far above what the sample devices
// need, low enough that a damaged file cannot make us allocate much.
constexpr size_t kMaxFileSize = 16u << 20;
constexpr size_t kMaxStoreBytes = 1u << 20;
constexpr size_t kMaxPasswordVariableBytes = 1024;

[[noreturn]] void fail(const std::string& message) { throw StateError(message); }
[[noreturn]] void failAt(size_t line, const std::string& message) {
  fail("line " + std::to_string(line) + ": " + message);
}

std::string errnoText() { return std::strerror(errno); }

// Printable ASCII without blanks: what an FQDD or a store name may hold here.
bool isToken(const std::string& text) {
  if (text.empty()) return false;
  for (char c : text)
    if (c <= 0x20 || c >= 0x7F) return false;
  return true;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string hexText(const std::vector<UINT8>& bytes) {
  if (bytes.empty()) return "-";
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (UINT8 b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 0xF];
  }
  return out;
}

std::vector<UINT8> parseHex(size_t line, const std::string& text, size_t limit, const char* what) {
  if (text == "-") return {};
  if (text.size() % 2) failAt(line, "the bytes have an odd number of hexadecimal digits");
  if (text.size() / 2 > limit) failAt(line, std::string(what) + " of more than " + std::to_string(limit) + " bytes");
  std::vector<UINT8> bytes(text.size() / 2);
  for (size_t i = 0; i < text.size(); ++i) {
    int d = hexDigit(text[i]);
    if (d < 0) failAt(line, "'" + std::string(1, text[i]) + "' at byte " + std::to_string(i / 2) + " is not a hexadecimal digit");
    bytes[i / 2] = UINT8(bytes[i / 2] << 4 | d);
  }
  return bytes;
}

// Registry format: 8-4-4-4-12 hexadecimal digits.
EFI_GUID parseGuid(size_t line, const std::string& text) {
  static const size_t kDashes[] = {8, 13, 18, 23};
  bool ok = text.size() == 36;
  for (size_t i = 0; ok && i < text.size(); ++i) {
    bool dash = i == kDashes[0] || i == kDashes[1] || i == kDashes[2] || i == kDashes[3];
    ok = dash ? text[i] == '-' : hexDigit(text[i]) >= 0;
  }
  if (!ok) failAt(line, "\"" + text + "\" is not a GUID in registry format");
  auto number = [&](size_t at, size_t digits) {
    UINT64 v = 0;
    for (size_t i = 0; i < digits; ++i) v = v << 4 | UINT64(hexDigit(text[at + i]));
    return v;
  };
  EFI_GUID g{};
  g.Data1 = UINT32(number(0, 8));
  g.Data2 = UINT16(number(9, 4));
  g.Data3 = UINT16(number(14, 4));
  g.Data4[0] = UINT8(number(19, 2));
  g.Data4[1] = UINT8(number(21, 2));
  for (size_t i = 0; i < 6; ++i) g.Data4[2 + i] = UINT8(number(24 + 2 * i, 2));
  return g;
}

// A decimal count without sign or leading zeros.
size_t parseCount(size_t line, const std::string& text) {
  bool ok = !text.empty() && text.size() <= 9 && (text == "0" || text[0] != '0');
  for (char c : text) ok = ok && c >= '0' && c <= '9';
  if (!ok) failAt(line, "\"" + text + "\" is not a count");
  return size_t(std::stoul(text));
}

// Fields separated by exactly one blank, none of them empty.
std::vector<std::string> fields(size_t line, const std::string& text) {
  std::vector<std::string> out;
  size_t start = 0;
  for (;;) {
    size_t blank = text.find(' ', start);
    std::string field = text.substr(start, blank == std::string::npos ? std::string::npos : blank - start);
    if (field.empty()) failAt(line, "empty field (fields are separated by one blank)");
    for (char c : field)
      if (c < 0x20 || c >= 0x7F) failAt(line, "a control or non-ASCII character");
    out.push_back(std::move(field));
    if (blank == std::string::npos) return out;
    start = blank + 1;
  }
}

std::string storeText(const StoreState& s) {
  return "store \"" + s.name + "\" " + ifr::guidText(s.guid) + " of device " + s.fqdd;
}

bool isPasswordVariableName(const std::string& name) {
  for (const char* known : kPasswordVariableNames)
    if (name == known) return true;
  return false;
}

std::u16string wide(const std::string& text) { return std::u16string(text.begin(), text.end()); }

std::string prefixed(const StoreState& s, const std::string& message) {
  return s.line ? "line " + std::to_string(s.line) + ": " + message : message;
}

std::string directoryOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// mkdir -p, new directories with mode 0700.
void makeDirectories(const std::string& dir) {
  struct stat st {};
  if (stat(dir.c_str(), &st) == 0) {
    if (!S_ISDIR(st.st_mode)) fail(dir + " is not a directory");
    return;
  }
  std::string parent = directoryOf(dir);
  if (parent != dir) makeDirectories(parent);
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) fail("cannot create the directory " + dir + ": " + errnoText());
}

void writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) fail("cannot write: " + errnoText());
    done += size_t(n);
  }
}

// Closes a descriptor and removes a file unless released.
class TempFile {
 public:
  TempFile(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}
  ~TempFile() {
    if (fd_ >= 0) ::close(fd_);
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  int fd() const { return fd_; }
  const std::string& path() const { return path_; }
  void close() {
    int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0) fail("cannot write: " + errnoText());
  }
  void release() { path_.clear(); }

 private:
  std::string path_;
  int fd_;
};

}  // namespace

// ---------------------------------------------------------------- text
std::string formatState(const SampleState& state) {
  std::string out = std::string(kMagic) + " " + std::to_string(kStateVersion) + "\n";
  size_t lines = 0;
  for (const StoreState& s : state.stores) {
    if (!isToken(s.fqdd)) fail("the FQDD \"" + s.fqdd + "\" cannot be written to a state file");
    if (!isToken(s.name)) fail("the store name \"" + s.name + "\" cannot be written to a state file");
    out += "store " + s.fqdd + (s.variable ? " variable " : " buffer ") + ifr::guidText(s.guid) + " " + s.name + " " +
           hexText(s.bytes) + "\n";
    ++lines;
  }
  out += std::string("passwords ") + passwordServicesName(state.passwordServices) + "\n";
  ++lines;
  for (const PasswordVariableState& v : state.passwordVariables) {
    if (!isPasswordVariableName(v.name)) fail("\"" + v.name + "\" is not a variable of the password store");
    if (v.bytes.empty()) fail("the password variable " + v.name + " holds no bytes");
    out += "password-variable " + v.name + " " + hexText(v.bytes) + "\n";
    ++lines;
  }
  return out + "end " + std::to_string(lines) + "\n";
}

SampleState parseState(const std::string& text) {
  if (text.empty()) fail("the file is empty");
  if (text.back() != '\n') fail("the last line is not ended: the file is cut short");
  SampleState state;
  bool ended = false, servicesGiven = false;
  size_t line = 0;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    const std::string content = text.substr(start, end - start);
    start = end + 1;
    ++line;
    if (ended) failAt(line, "text after the end line");
    std::vector<std::string> f = fields(line, content);
    if (line == 1) {
      if (f.size() != 2 || f[0] != kMagic) failAt(line, "not a tolvane state file");
      if (f[1] != "1" && f[1] != std::to_string(kStateVersion))
        failAt(line, "state format version " + f[1] + " is not supported (this program reads versions 1 and " +
                         std::to_string(kStateVersion) + ")");
      continue;
    }
    if (f[0] == "end") {
      if (f.size() != 2) failAt(line, "the end line has " + std::to_string(f.size()) + " fields instead of 2");
      size_t count = parseCount(line, f[1]);
      if (count != line - 2)
        failAt(line, "the end line counts " + std::to_string(count) + " lines, the file holds " +
                         std::to_string(line - 2));
      ended = true;
      continue;
    }
    if (f[0] == "passwords") {
      if (f.size() != 2) failAt(line, "a passwords line has " + std::to_string(f.size()) + " fields instead of 2");
      std::optional<PasswordServices> services = parsePasswordServices(f[1]);
      if (!services) failAt(line, "unknown password services \"" + f[1] + "\" (none, new, legacy or both)");
      if (servicesGiven) failAt(line, "the password services are given twice");
      servicesGiven = true;
      state.passwordServices = *services;
      continue;
    }
    if (f[0] == "password-variable") {
      if (f.size() != 3)
        failAt(line, "a password-variable line has " + std::to_string(f.size()) + " fields instead of 3");
      if (!isPasswordVariableName(f[1])) failAt(line, "\"" + f[1] + "\" is not a variable of the password store");
      PasswordVariableState v{f[1], parseHex(line, f[2], kMaxPasswordVariableBytes, "a password variable")};
      if (v.bytes.empty()) failAt(line, "the password variable " + v.name + " holds no bytes");
      for (const PasswordVariableState& other : state.passwordVariables)
        if (other.name == v.name) failAt(line, "the password variable " + v.name + " is given twice");
      state.passwordVariables.push_back(std::move(v));
      continue;
    }
    if (f[0] != "store") failAt(line, "unknown line \"" + f[0] + "\"");
    if (f.size() != 6) failAt(line, "a store line has " + std::to_string(f.size()) + " fields instead of 6");
    StoreState s;
    s.line = line;
    s.fqdd = f[1];
    if (f[2] != "buffer" && f[2] != "variable") failAt(line, "unknown store kind \"" + f[2] + "\"");
    s.variable = f[2] == "variable";
    s.guid = parseGuid(line, f[3]);
    s.name = f[4];
    s.bytes = parseHex(line, f[5], kMaxStoreBytes, "a store");
    state.stores.push_back(std::move(s));
  }
  if (line == 1 || !ended) fail("the file ends without its end line: it is cut short");
  // The variables in one order, whatever order the file gives them in.
  std::vector<PasswordVariableState> ordered;
  for (const char* name : kPasswordVariableNames)
    for (PasswordVariableState& v : state.passwordVariables)
      if (v.name == name) ordered.push_back(std::move(v));
  state.passwordVariables = std::move(ordered);
  return state;
}

// ---------------------------------------------------------------- platform
std::vector<StoreState> captureStores(SamplePlatform& sample) {
  std::vector<StoreState> out;
  for (SampleDevice& device : sample.devices()) {
    for (const FormSetDescription& formSet : device.definition.formSets) {
      for (const VarStoreDescription& store : formSet.varStores) {
        StoreState s;
        s.fqdd = hii::toAscii(device.fqdd());
        s.variable = store.efiVariable;
        s.guid = store.guid;
        s.name = store.name;
        s.bytes = device.device->storage(store.guid, hii::toUtf16(store.name));
        out.push_back(std::move(s));
      }
    }
  }
  return out;
}

void restoreStores(SamplePlatform& sample, const std::vector<StoreState>& stores) {
  struct Target {
    SampleDevice* device;
    const StoreState* state;
  };
  std::vector<Target> targets;
  std::vector<const VarStoreDescription*> seen;
  for (const StoreState& s : stores) {
    SampleDevice* device = sample.findDevice(hii::toUtf16(s.fqdd));
    if (!device) fail(prefixed(s, "the sample platform has no device " + s.fqdd));
    const VarStoreDescription* store = nullptr;
    for (const FormSetDescription& formSet : device->definition.formSets)
      for (const VarStoreDescription& candidate : formSet.varStores)
        if (candidate.guid == s.guid && candidate.name == s.name) store = &candidate;
    if (!store) fail(prefixed(s, "device " + s.fqdd + " has no store \"" + s.name + "\" " + ifr::guidText(s.guid)));
    if (store->efiVariable != s.variable)
      fail(prefixed(s, storeText(s) + " is " + (store->efiVariable ? "an EFI variable" : "a buffer") +
                           " store, not " + (s.variable ? "an EFI variable" : "a buffer") + " store"));
    if (s.bytes.size() != store->size)
      fail(prefixed(s, storeText(s) + " holds " + std::to_string(store->size) + " bytes, not " +
                           std::to_string(s.bytes.size())));
    for (const VarStoreDescription* other : seen)
      if (other == store) fail(prefixed(s, storeText(s) + " is given twice"));
    seen.push_back(store);
    targets.push_back({device, &s});
  }
  for (const Target& t : targets)
    t.device->device->setStorage(t.state->guid, hii::toUtf16(t.state->name), t.state->bytes);
}

SampleState captureState(SamplePlatform& sample) {
  SampleState state;
  state.stores = captureStores(sample);
  state.passwordServices = sample.passwordServices();
  for (const char* name : kPasswordVariableNames) {
    std::vector<UINT8> bytes;
    if (sample.platform().getVariable(wide(name), gPasswordStoreGuid, &bytes) == EFI_SUCCESS && !bytes.empty())
      state.passwordVariables.push_back({name, std::move(bytes)});
  }
  return state;
}

void restoreState(SamplePlatform& sample, const SampleState& state) {
  for (const PasswordVariableState& v : state.passwordVariables)
    if (!isPasswordVariableName(v.name) || v.bytes.empty())
      fail("\"" + v.name + "\" is not a variable of the password store");
  restoreStores(sample, state.stores);
  try {
    sample.setPasswordServices(state.passwordServices);
  } catch (const std::runtime_error& e) {
    fail(std::string("cannot load the password services: ") + e.what());
  }
  for (const char* name : kPasswordVariableNames) {
    std::vector<UINT8> bytes;
    for (const PasswordVariableState& v : state.passwordVariables)
      if (v.name == name) bytes = v.bytes;
    // No bytes remove the variable; removing an absent one is no failure.
    EFI_STATUS status =
        sample.platform().setVariable(wide(name), gPasswordStoreGuid, PASSWORD_VARIABLE_ATTRIBUTES, bytes);
    if (status != EFI_SUCCESS && !(bytes.empty() && status == EFI_NOT_FOUND))
      fail(std::string("cannot store the password variable ") + name + ": " + statusText(status));
  }
}

// ---------------------------------------------------------------- file
std::string statePathFrom(const char* tolvaneState, const char* xdgStateHome, const char* home) {
  auto set = [](const char* v) { return v && *v; };
  if (set(tolvaneState)) return tolvaneState;
  if (set(xdgStateHome) && xdgStateHome[0] == '/') return std::string(xdgStateHome) + "/tolvane/" + kFileName;
  if (set(home)) return std::string(home) + "/.local/state/tolvane/" + kFileName;
  fail("no place for the state file: set TOLVANE_STATE, XDG_STATE_HOME or HOME, or give --state FILE");
}

std::string defaultStatePath() {
  return statePathFrom(std::getenv("TOLVANE_STATE"), std::getenv("XDG_STATE_HOME"), std::getenv("HOME"));
}

std::optional<SampleState> StateFile::read() const {
  int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return std::nullopt;
    fail(path_ + ": cannot read: " + errnoText());
  }
  std::string text;
  try {
    struct stat st {};
    if (fstat(fd, &st) != 0) fail("cannot read: " + errnoText());
    if (!S_ISREG(st.st_mode)) fail("not a regular file");
    if (size_t(st.st_size) > kMaxFileSize) fail("larger than " + std::to_string(kMaxFileSize) + " bytes");
    char buffer[4096];
    for (;;) {
      ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) fail("cannot read: " + errnoText());
      if (n == 0) break;
      text.append(buffer, size_t(n));
      if (text.size() > kMaxFileSize) fail("larger than " + std::to_string(kMaxFileSize) + " bytes");
    }
    ::close(fd);
    fd = -1;
    return parseState(text);
  } catch (const StateError& e) {
    if (fd >= 0) ::close(fd);
    throw StateError(path_ + ": " + e.what());
  }
}

void StateFile::write(const SampleState& state, const std::function<void(const std::string&)>& beforeRename) const {
  try {
    const std::string text = formatState(state);
    const std::string dir = directoryOf(path_);
    makeDirectories(dir);
    std::string pattern = path_ + ".XXXXXX";
    int fd = mkstemp(pattern.data());
    if (fd < 0) fail("cannot create a new file beside it: " + errnoText());
    TempFile temp(pattern, fd);
    writeAll(temp.fd(), text);
    if (fsync(temp.fd()) != 0) fail("cannot write: " + errnoText());
    temp.close();
    if (beforeRename) beforeRename(temp.path());
    if (rename(temp.path().c_str(), path_.c_str()) != 0) fail("cannot replace it: " + errnoText());
    temp.release();
    // The rename itself reaches the disk with the directory.
    int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
      fsync(dirFd);
      ::close(dirFd);
    }
  } catch (const StateError& e) {
    throw StateError(path_ + ": " + e.what());
  }
}

// ---------------------------------------------------------------- binding
PersistentStores::PersistentStores(SamplePlatform& sample, StateFile file) : sample_(sample), file_(std::move(file)) {
  std::optional<SampleState> state = file_.read();
  if (state) {
    try {
      restoreState(sample_, *state);
    } catch (const StateError& e) {
      throw StateError(file_.path() + ": " + e.what());
    }
    loaded_ = true;
  }
  baseline_ = captureState(sample_);
}

bool PersistentStores::commit() {
  SampleState now = captureState(sample_);
  if (now == baseline_) return false;
  file_.write(now);
  baseline_ = std::move(now);
  return true;
}

}  // namespace tvl::host::sample
