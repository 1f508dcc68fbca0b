// Runtime services: variables with their edge cases, time, reset, and the slots answering EFI_UNSUPPORTED.
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

TEST_F(VariableTest, GetNextVariableNameWalksEveryVariable) {
  ASSERT_EQ(set(u"First", kBs, "1"), EFI_SUCCESS);
  ASSERT_EQ(rt()->SetVariable(u"Second", &kOtherVendor, kBs, 1, "2"), EFI_SUCCESS);
  ASSERT_EQ(set(u"ThirdName", kBs, "3"), EFI_SUCCESS);
  char16_t name[32] = {};
  EFI_GUID vendor{};
  std::u16string walk;
  for (;;) {
    UINTN size = sizeof name;
    EFI_STATUS s = rt()->GetNextVariableName(&size, name, &vendor);
    if (s == EFI_NOT_FOUND) break;
    ASSERT_EQ(s, EFI_SUCCESS);
    EXPECT_EQ(size, (std::char_traits<char16_t>::length(name) + 1) * 2);
    walk += name;
    walk += vendor == kOtherVendor ? u"@other " : u" ";
  }
  EXPECT_EQ(walk, u"First Second@other ThirdName ");
  // After "Second": the next name needs 20 bytes.
  std::u16string second = u"Second";
  std::copy(second.begin(), second.end() + 1, name);
  vendor = kOtherVendor;
  UINTN size = 8;
  EXPECT_EQ(rt()->GetNextVariableName(&size, name, &vendor), EFI_INVALID_PARAMETER);  // no NUL in 8 bytes
  size = 16;
  EXPECT_EQ(rt()->GetNextVariableName(&size, name, &vendor), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, 20u);
  EXPECT_EQ(std::u16string(name), u"Second");
  vendor = kVendor;  // "Second" of the wrong vendor does not exist
  size = sizeof name;
  EXPECT_EQ(rt()->GetNextVariableName(&size, name, &vendor), EFI_INVALID_PARAMETER);
  EXPECT_EQ(rt()->GetNextVariableName(nullptr, name, &vendor), EFI_INVALID_PARAMETER);
  EXPECT_EQ(rt()->GetNextVariableName(&size, nullptr, &vendor), EFI_INVALID_PARAMETER);
  EXPECT_EQ(rt()->GetNextVariableName(&size, name, nullptr), EFI_INVALID_PARAMETER);
}

TEST_F(VariableTest, QueryVariableInfoTracksStorage) {
  UINT64 maxStorage = 0, before = 0, after = 0, maxSize = 0;
  ASSERT_EQ(rt()->QueryVariableInfo(kNvBs, &maxStorage, &before, &maxSize), EFI_SUCCESS);
  ASSERT_EQ(set(u"Abc", kNvBs, "12345"), EFI_SUCCESS);
  ASSERT_EQ(rt()->QueryVariableInfo(kNvBs, &maxStorage, &after, &maxSize), EFI_SUCCESS);
  EXPECT_EQ(before - after, 8u + 5u);  // "Abc" with its NUL in UCS-2, and the data
  for (uint32_t attributes : {0u, uint32_t{EFI_VARIABLE_RUNTIME_ACCESS}})
    EXPECT_EQ(rt()->QueryVariableInfo(attributes, &maxStorage, &after, &maxSize), EFI_INVALID_PARAMETER);
  EXPECT_EQ(rt()->QueryVariableInfo(kNvBs, nullptr, &after, &maxSize), EFI_INVALID_PARAMETER);
  std::vector<uint8_t> chunk(host::Platform::kMaxVariableSize / 2, 0x5A);
  EFI_STATUS s = EFI_SUCCESS;
  for (char16_t name[] = u"FillA"; name[4] < u'A' + 64 && s == EFI_SUCCESS; ++name[4])
    s = rt()->SetVariable(name, &kVendor, kBs, chunk.size(), chunk.data());
  EXPECT_EQ(s, EFI_OUT_OF_RESOURCES);  // the store fills up
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
  EXPECT_EQ(rt()->SetTime(&time), EFI_UNSUPPORTED);
  EXPECT_EQ(bs()->SetTimer(nullptr, TimerRelative, 10), EFI_UNSUPPORTED);
  rt()->ResetSystem(EfiResetWarm, EFI_SUCCESS, 0, nullptr);
  EXPECT_TRUE(platform().resetRequested() && platform().resetType() == EfiResetWarm);
  EXPECT_EQ(st()->ConOut->OutputString(st()->ConOut, u"w\u00f6rld\r\n"), EFI_SUCCESS);
  EXPECT_EQ(platform().consoleTextNarrow(), "w\xc3\xb6rld\r\n");
  UINT32 crc = 0;
  ASSERT_EQ(bs()->CalculateCrc32(const_cast<char*>("123456789"), 9, &crc), EFI_SUCCESS);
  EXPECT_EQ(crc, 0xCBF43926u);
  int table = 0;
  EFI_GUID tableGuid = testGuid(0x30);
  ASSERT_EQ(bs()->InstallConfigurationTable(&tableGuid, &table), EFI_SUCCESS);
  ASSERT_EQ(st()->NumberOfTableEntries, 1u);
  EXPECT_EQ(st()->ConfigurationTable[0].VendorTable, &table);
  EXPECT_EQ(bs()->InstallConfigurationTable(&tableGuid, nullptr), EFI_SUCCESS);
  EXPECT_EQ(st()->NumberOfTableEntries, 0u);
  EXPECT_EQ(bs()->InstallConfigurationTable(&tableGuid, nullptr), EFI_NOT_FOUND);
}

}  // namespace
}  // namespace tvl::test
