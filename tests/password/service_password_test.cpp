// Passwords through the protocol slot into the real service images: no
// password byte left in freed pool memory, a trace or a results document
// after any outcome. (Set, change and clear on each service: the command
// line's tests; the hash form: the stand-in's rows and the services' tests.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "password_fixture.h"

namespace {

using tvl::test::base64;
using tvl::test::document;
using tvl::test::Item;
using tvl::test::Service;
using Bytes = std::vector<UINT8>;
using Strings = std::vector<std::string>;

Item pending(const std::string& name, const std::string& secret, bool marked = true) {
  return Item{name, "1", secret.empty() ? std::string() : base64(secret), marked};
}

std::string lower(std::string text) {
  for (char& c : text) c = char(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

const std::string kFirst = "Qx7#Lm2!Vr", kSecond = "Jh4$Tp9@Ws";

// Every form a password may take in memory: its bytes, lower-cased, and
// both widened to UCS-2.
std::vector<std::pair<std::string, Bytes>> needles() {
  std::vector<std::pair<std::string, Bytes>> out;
  for (const std::string& secret : {kFirst, kSecond}) {
    for (const std::string& form : {secret, lower(secret)}) {
      out.push_back({form, Bytes(form.begin(), form.end())});
      Bytes widened;
      for (char c : form) widened.insert(widened.end(), {UINT8(c), 0});
      out.push_back({form + " (UCS-2)", widened});
    }
  }
  return out;
}

std::vector<std::string> found(const UINT8* data, size_t size) {
  std::vector<std::string> hits;
  for (const auto& [name, bytes] : needles())
    if (std::search(data, data + size, bytes.begin(), bytes.end()) != data + size) hits.push_back(name);
  return hits;
}

class HygieneTest : public tvl::test::PasswordTest, public ::testing::WithParamInterface<Service> {
 protected:
  void SetUp() override {
    PasswordTest::SetUp();
    start(GetParam());
    platform().setFreeObserver([this](const void* block, size_t size) {
      for (const std::string& hit : found(static_cast<const UINT8*>(block), size)) freed_.push_back(hit);
    });
  }
  void TearDown() override {
    platform().setFreeObserver({});
    PasswordTest::TearDown();
  }

  // Applies a document and looks for passwords in what the pool got back,
  // in the traces and in the results.
  void applyAndScan(const std::vector<Item>& items, const std::string& what) {
    SCOPED_TRACE(what);
    auto root = parse(document(items));
    XML_NODE* results = nullptr;
    log().clear();
    freed_.clear();
    apply(root.get(), &results);
    scan(results);
    if (results) xml()->XML_FreeNode(xml(), results);
  }

  void scan(XML_NODE* results) {
    EXPECT_EQ(freed_, Strings{}) << "in freed pool memory";
    for (const tvl::test::LogRecord& r : log().records())
      EXPECT_EQ(found(reinterpret_cast<const UINT8*>(r.text.data()), r.text.size()), Strings{}) << r.text;
    if (results) {
      std::string text = serialise(results);
      EXPECT_EQ(found(reinterpret_cast<const UINT8*>(text.data()), text.size()), Strings{}) << text;
    }
  }

  bool older() const { return GetParam() == Service::Older; }
  std::vector<Item> change(const std::string& next, const std::string& old, bool marked = true) {
    std::vector<Item> items{pending("SetupPassword", next, marked)};
    if (older()) items.push_back(pending("OldSetupPassword", old, marked));
    return items;
  }

  Strings freed_;
};

TEST_P(HygieneTest, NoPasswordLeftAfterAnyOutcome) {
  applyAndScan(change(kFirst, ""), "set");
  applyAndScan(change(kSecond, kSecond), "wrong old password, or equal passwords");
  applyAndScan(change(kSecond, kFirst), "change");
  applyAndScan(change(kFirst + kFirst + kFirst + kFirst, kSecond), "too long");
  applyAndScan(change(kFirst, kSecond + kSecond + kSecond + kSecond), "old too long");
  applyAndScan(change(kFirst, kSecond, false), "not marked");
  markDisabled(1u << (PASSWORD_WHICH_SETUP - 1));
  applyAndScan(change(kFirst, kSecond), "disabled");
  markDisabled(0);
  applyAndScan(change("", kSecond), "clear");
}

// Every allocation of a change failing in turn, with the password store put
// back after each run, so that each run takes the same path.
TEST_P(HygieneTest, NoPasswordLeftWhenMemoryRunsOut) {
  applyAndScan(change(kFirst, ""), "set");
  const EFI_GUID store = PASSWORD_STORE_GUID;
  UINT8 saved[256];
  UINTN size = sizeof saved;
  ASSERT_EQ(rt()->GetVariable(PASSWORD_SETUP_VARIABLE, &store, nullptr, &size, saved), EFI_SUCCESS);
  std::shared_ptr<XML_NODE> root = parse(document(change(kSecond, kFirst)));
  XML_NODE* results = nullptr;
  freed_.clear();
  log().clear();
  auto reset = [&] {
    if (results) xml()->XML_FreeNode(xml(), results);
    results = nullptr;
    root = parse(document(change(kSecond, kFirst)));
    ASSERT_EQ(rt()->SetVariable(PASSWORD_SETUP_VARIABLE, &store, PASSWORD_VARIABLE_ATTRIBUTES, size, saved),
              EFI_SUCCESS);
    freed_.clear();
    log().clear();
  };
  size_t attempts = sweepAllocationFailures([&] { return apply(root.get(), &results); },
                                            [&](EFI_STATUS, size_t k) {
                                              SCOPED_TRACE("allocation " + std::to_string(k));
                                              scan(results);
                                            },
                                            reset);
  EXPECT_GE(attempts, older() ? 5u : 3u);
}

INSTANTIATE_TEST_SUITE_P(Services, HygieneTest, ::testing::Values(Service::Newer, Service::Older),
                         [](const ::testing::TestParamInfo<Service>& info) {
                           return std::string(info.param == Service::Newer ? "Newer" : "Older");
                         });

}  // namespace
