#include "tools/cli.h"

#include <cstdio>

#include "host/ifr/ifr_dump.h"

namespace tvl::cli {

void badInput(const std::string& message) { throw Error(kExitBadInput, message); }
void failure(const std::string& message) { throw Error(kExitFailure, message); }

namespace {
host::PoolMode gPoolMode = host::PoolMode::Lean;
}  // namespace

host::PoolMode poolMode() { return gPoolMode; }
void setPoolMode(host::PoolMode mode) { gPoolMode = mode; }

void checkPool(const host::Platform& platform) {
  if (platform.poolMode() != host::PoolMode::Checked) return;
  host::PoolStats stats = platform.poolStats();
  if (stats.invalidFrees == 0 && stats.overruns == 0) return;
  failure("the checked pool saw " + std::to_string(stats.invalidFrees) + " invalid free(s) and " +
          std::to_string(stats.overruns) + " overrun(s):\n" + platform.poolErrorReport());
}

Options::Options(const std::vector<OptionDescription>& description, const std::vector<std::string>& args) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    std::string name = arg, value;
    bool inlineValue = false;
    size_t eq = arg.find('=');
    if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
      inlineValue = true;
    }
    const OptionDescription* found = nullptr;
    for (const auto& s : description)
      if (name == s.name) found = &s;
    if (!found) {
      if (!arg.empty() && arg[0] == '-') badInput("unknown option '" + arg + "' (see --help)");
      badInput("unexpected argument '" + arg + "' (see --help)");
    }
    if (has(name)) badInput("option " + name + " given twice");
    if (found->takesValue && !inlineValue) {
      if (i + 1 >= args.size()) badInput("option " + name + " needs a value");
      value = args[++i];
    } else if (!found->takesValue && inlineValue) {
      badInput("option " + name + " takes no value");
    }
    if (found->takesValue && value.empty()) badInput("option " + name + " needs a non-empty value");
    given_.emplace_back(name, value);
  }
}

std::vector<std::string> takeOperands(const std::vector<OptionDescription>& description,
                                      std::vector<std::string>& args) {
  std::vector<std::string> operands, rest;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg.size() < 2 || arg[0] != '-') {
      operands.push_back(arg);
      continue;
    }
    rest.push_back(arg);
    for (const auto& d : description)
      if (arg == d.name && d.takesValue && i + 1 < args.size()) rest.push_back(args[++i]);
  }
  args = std::move(rest);
  return operands;
}

bool Options::has(const std::string& name) const {
  for (const auto& g : given_)
    if (g.first == name) return true;
  return false;
}

std::string Options::value(const std::string& name) const {
  for (const auto& g : given_)
    if (g.first == name) return g.second;
  return {};
}

std::string utf8(const std::u16string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t c = text[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000)
      c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
    else if (c >= 0xD800 && c < 0xE000)
      c = 0xFFFD;  // a lone surrogate
    if (c < 0x80) {
      out += char(c);
    } else if (c < 0x800) {
      out += char(0xC0 | (c >> 6));
      out += char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += char(0xE0 | (c >> 12));
      out += char(0x80 | ((c >> 6) & 0x3F));
      out += char(0x80 | (c & 0x3F));
    } else {
      out += char(0xF0 | (c >> 18));
      out += char(0x80 | ((c >> 12) & 0x3F));
      out += char(0x80 | ((c >> 6) & 0x3F));
      out += char(0x80 | (c & 0x3F));
    }
  }
  return out;
}

std::string quoted(const std::u16string& text) {
  std::string out = "\"";
  for (char c : utf8(text)) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
      out += buf;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string hex(UINT64 value, int digits) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%0*llx", digits, static_cast<unsigned long long>(value));
  return buf;
}

std::string guidText(const EFI_GUID& guid) { return host::ifr::guidText(guid); }

std::string handleName(host::Platform& platform, EFI_HANDLE handle) {
  std::vector<EFI_HANDLE> all = platform.allHandles();
  for (size_t i = 0; i < all.size(); ++i)
    if (all[i] == handle) return "handle " + std::to_string(i + 1);
  return "an unknown handle";
}

}  // namespace tvl::cli
