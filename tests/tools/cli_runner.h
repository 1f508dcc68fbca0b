// Runs the built tolvane program for the tests of the command line.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "uefi/base.h"

#ifndef TOLVANE_CLI
#error "TOLVANE_CLI names the program under test"
#endif

namespace tvl::test {

struct Outcome {
  int exitCode = -1;
  std::string out, err;
};

inline std::string readAll(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

inline bool exists(const std::string& path) { return std::ifstream(path).good(); }

// Whether `text` holds `part`; either way the message shows the text.
inline ::testing::AssertionResult has(const std::string& text, const std::string& part) {
  auto result = text.find(part) != std::string::npos ? ::testing::AssertionSuccess() : ::testing::AssertionFailure();
  return result << "\"" << part << "\" in:\n" << text;
}

// Runs the built program in a temporary directory of its own, with a state
// file there (never the user's own).
class Cli {
 public:
  Cli() {
    char pattern[] = "/tmp/tolvane-cli-XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("cannot make a temporary directory");
    dir_ = pattern;
  }
  ~Cli() { std::system(("rm -rf '" + dir_ + "'").c_str()); }
  Cli(const Cli&) = delete;
  Cli& operator=(const Cli&) = delete;

  std::string path(const std::string& name) const { return dir_ + "/" + name; }

  // Runs with the checked pool unless `lean` (the checked pool fails a
  // command that frees memory wrongly), on the test's own state file or,
  // when given, with `environment` ("NAME=value ...") instead. Standard
  // input reads a file (not a terminal) holding `input`.
  Outcome run(const std::vector<std::string>& args, bool lean = false, const std::string& environment = "",
              const std::string& input = "") const {
    write("stdin", input);
    std::string command = "env -u TOLVANE_STATE -u XDG_STATE_HOME " +
                          (environment.empty() ? "TOLVANE_STATE='" + path("platform.state") + "'" : environment) +
                          " '" TOLVANE_CLI "'" + (lean ? "" : " --checked-pool");
    for (const auto& a : args) command += " '" + a + "'";
    command += " <'" + path("stdin") + "' >'" + path("stdout") + "' 2>'" + path("stderr") + "'";
    int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readAll(path("stdout")), readAll(path("stderr"))};
  }

  // Runs a command that must succeed; its standard output.
  std::string ok(const std::vector<std::string>& args) const {
    Outcome r = run(args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    return r.out;
  }

  void write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
  }

 private:
  std::string dir_;
};

}  // namespace tvl::test
