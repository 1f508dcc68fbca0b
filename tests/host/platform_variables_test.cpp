// Runtime services: variables with their edge cases, time, the console, and every table slot filled.
#include <string>

#include "tests/host/platform_test_util.h"

namespace tvl::test {
namespace {

const EFI_GUID kVendor = testGuid(0x20);
const EFI_GUID kOtherVendor = testGuid(0x21);
constexpr uint32_t kBs = EFI_VARIABLE_BOOTSERVICE_ACCESS;
constexpr uint32_t kNvBs = EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS;
constexpr uint32_t kNvBsRt = kNvBs | EFI_VARIABLE_RUNTIME_ACCESS;
constexpr uint32_t kAppend = 0x40;

class VariableTest : public PlatformTest {
 protected:
  std::string read(const char16_t* name, const EFI_GUID& vendor = kVendor) {
    std::vector<uint8_t> data;
    if (platform().getVariable(name, vendor, &data) != EFI_SUCCESS) return "<none>";
    return std::string(data.begin(), data.end());
  }
  EFI_STATUS set(const char16_t* name, uint32_t attributes, const char* text) {
    return rt()->SetVariable(name, &kVendor, attributes, std::strlen(text), text);
  }
};

TEST_F(VariableTest, SetVariableRules) {
  ASSERT_EQ(set(u"Existing", kNvBs, "old"), EFI_SUCCESS);
  const struct {  // the last field: contents of "Existing" afterwards
    const char* what; const char16_t* name; const EFI_GUID* vendor; uint32_t attributes; UINTN size;
    const char* data; EFI_STATUS expected; const char* existingAfter;
  } cases[] = {
      {"null name", nullptr, &kVendor, kBs, 3, "abc", EFI_INVALID_PARAMETER, "old"},
      {"empty name", u"", &kVendor, kBs, 3, "abc", EFI_INVALID_PARAMETER, "old"},
      {"null vendor", u"X", nullptr, kBs, 3, "abc", EFI_INVALID_PARAMETER, "old"},
      {"data missing", u"X", &kVendor, kBs, 3, nullptr, EFI_INVALID_PARAMETER, "old"},
      {"runtime without boot access", u"X", &kVendor, EFI_VARIABLE_RUNTIME_ACCESS, 3, "abc", EFI_INVALID_PARAMETER, "old"},
      {"unknown attribute", u"X", &kVendor, kBs | 0x100, 3, "abc", EFI_INVALID_PARAMETER, "old"},
      {"authenticated write", u"X", &kVendor, kBs | 0x20, 3, "abc", EFI_UNSUPPORTED, "old"},
      {"larger than a variable may be", u"X", &kVendor, kBs, host::Platform::kMaxVariableSize, "abc",
       EFI_INVALID_PARAMETER, "old"},
      {"delete a missing variable by size 0", u"Missing", &kVendor, kBs, 0, nullptr, EFI_NOT_FOUND, "old"},
      {"no access attributes on a missing variable", u"Missing", &kVendor, EFI_VARIABLE_NON_VOLATILE, 3, "abc", EFI_NOT_FOUND, "old"},
      {"other attributes on rewrite", u"Existing", &kVendor, kNvBsRt, 3, "new", EFI_INVALID_PARAMETER, "old"},
      {"other attributes on delete by size", u"Existing", &kVendor, kBs, 0, nullptr, EFI_INVALID_PARAMETER, "old"},
      {"same name, other vendor", u"Existing", &kOtherVendor, kBs, 5, "other", EFI_SUCCESS, "old"},
      {"rewrite", u"Existing", &kVendor, kNvBs, 5, "newer", EFI_SUCCESS, "newer"},
      {"append", u"Existing", &kVendor, kNvBs | kAppend, 2, "!!", EFI_SUCCESS, "newer!!"},
      {"append nothing", u"Existing", &kVendor, kNvBs | kAppend, 0, nullptr, EFI_SUCCESS, "newer!!"},
      {"delete by attributes 0", u"Existing", &kVendor, 0, 3, "xyz", EFI_SUCCESS, "<none>"},
      {"append creates", u"Existing", &kVendor, kNvBs | kAppend, 2, "ab", EFI_SUCCESS, "ab"},
      {"delete by size 0", u"Existing", &kVendor, kNvBs, 0, nullptr, EFI_SUCCESS, "<none>"},
  };
  for (const auto& t : cases) {
    EFI_STATUS s = rt()->SetVariable(t.name, t.vendor, t.attributes, t.size, t.data);
    EXPECT_EQ(statusName(s), statusName(t.expected)) << t.what;
    EXPECT_EQ(read(u"Existing"), t.existingAfter) << t.what;
  }
  EXPECT_EQ(read(u"Existing", kOtherVendor), "other");
  uint32_t attributes = 0;
  ASSERT_EQ(set(u"Appended", kBs | kAppend, "x"), EFI_SUCCESS);
  ASSERT_EQ(platform().getVariable(u"Appended", kVendor, nullptr, &attributes), EFI_SUCCESS);
  EXPECT_EQ(attributes, kBs);  // the append flag is not stored
}

TEST_F(VariableTest, GetVariableRules) {
  ASSERT_EQ(set(u"Value", kNvBsRt, "hello"), EFI_SUCCESS);
  const struct {
    const char* what; const char16_t* name; const EFI_GUID* vendor; bool withSize; UINTN sizeIn; bool withData;
    bool withAttributes; EFI_STATUS expected; UINTN sizeOut;
  } cases[] = {
      {"exact size", u"Value", &kVendor, true, 5, true, true, EFI_SUCCESS, 5},
      {"larger buffer", u"Value", &kVendor, true, 64, true, false, EFI_SUCCESS, 5},
      {"too small", u"Value", &kVendor, true, 4, true, true, EFI_BUFFER_TOO_SMALL, 5},
      {"size query with no buffer", u"Value", &kVendor, true, 0, false, true, EFI_BUFFER_TOO_SMALL, 5},
      {"big enough but no buffer", u"Value", &kVendor, true, 5, false, true, EFI_INVALID_PARAMETER, 5},
      {"no size", u"Value", &kVendor, false, 0, true, true, EFI_INVALID_PARAMETER, 0},
      {"null name", nullptr, &kVendor, true, 8, true, true, EFI_INVALID_PARAMETER, 8},
      {"null vendor", u"Value", nullptr, true, 8, true, true, EFI_INVALID_PARAMETER, 8},
      {"other vendor", u"Value", &kOtherVendor, true, 8, true, true, EFI_NOT_FOUND, 8},
      {"unknown name", u"Valu", &kVendor, true, 8, true, true, EFI_NOT_FOUND, 8},
      {"empty name", u"", &kVendor, true, 8, true, true, EFI_NOT_FOUND, 8},
  };
  for (const auto& t : cases) {
    char data[64] = {};
    UINTN size = t.sizeIn;
    uint32_t attributes = 0xFFFF;
    EFI_STATUS s = rt()->GetVariable(t.name, t.vendor, t.withAttributes ? &attributes : nullptr,
                                     t.withSize ? &size : nullptr, t.withData ? data : nullptr);
    EXPECT_EQ(statusName(s), statusName(t.expected)) << t.what;
    EXPECT_EQ(size, t.withSize ? t.sizeOut : 0) << t.what;
    if (t.withAttributes && (s == EFI_SUCCESS || s == EFI_BUFFER_TOO_SMALL) && t.name && t.vendor && t.withSize) {
      EXPECT_EQ(attributes, kNvBsRt) << t.what;
    }
    EXPECT_EQ(std::string(data), s == EFI_SUCCESS ? "hello" : "") << t.what;
  }
}

TEST_F(VariableTest, EveryTableSlotIsFilledAndOtherServicesAnswer) {
  auto expectFilled = [](const void* table, size_t size, size_t skip) {
    const auto* p = static_cast<const uint8_t*>(table) + sizeof(EFI_TABLE_HEADER);
    for (size_t off = 0; off + sizeof(void*) <= size - sizeof(EFI_TABLE_HEADER); off += sizeof(void*)) {
      const void* slot;
      std::memcpy(&slot, p + off, sizeof slot);
      EXPECT_TRUE(off == skip || slot != nullptr) << "slot at " << off;
    }
  };
  expectFilled(bs(), sizeof(EFI_BOOT_SERVICES), offsetof(EFI_BOOT_SERVICES, Reserved) - sizeof(EFI_TABLE_HEADER));
  expectFilled(rt(), sizeof(EFI_RUNTIME_SERVICES), ~size_t{0});
  EFI_TIME time{};
  ASSERT_EQ(rt()->GetTime(&time, nullptr), EFI_SUCCESS);
  EXPECT_EQ(rt()->GetTime(nullptr, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(st()->ConOut->OutputString(st()->ConOut, u"w\u00f6rld\r\n"), EFI_SUCCESS);
  EXPECT_EQ(platform().consoleTextNarrow(), "w\xc3\xb6rld\r\n");
}

}  // namespace
}  // namespace tvl::test
