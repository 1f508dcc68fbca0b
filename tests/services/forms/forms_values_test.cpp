// Current values left zero when the driver cannot give them (those it
// gives: the records and cache tests), and the device path in a store's
// configuration header.
#include <gtest/gtest.h>

#include <cstring>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using FormsValuesTest = FormsTest;
using FormsDevicePathTest = FormsTest;
using Bytes = std::vector<uint8_t>;
constexpr UINT16 kValueQuestions[] = {0x10, 0x12, 0x18};  // one-of, 32-bit numeric, 64-bit numeric in the variable

// A device that declares neither store (ExtractConfig answers
// EFI_NOT_FOUND, the variable does not exist). A driver handle without
// configuration access: the device-path test below.
TEST_F(FormsValuesTest, ValuesStayZeroWhenTheDriverCannotGiveThem) {
  const Sample sample;
  auto parse = process({addDevice().addPackageList(sample.list())});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  for (UINT16 q : kValueQuestions) EXPECT_EQ(number(findQuestion(parse->set(), q)->HiiValue), 0u) << q;

  // A GetVariable that fails after writing into the buffer: those bytes are no value.
  struct FailingVariables {
    static EFI_STATUS EFIAPI get(const CHAR16*, const EFI_GUID*, UINT32*, UINTN* size, VOID* data) {
      std::memset(data, 0xEE, *size);
      return EFI_DEVICE_ERROR;
    }
  };
  const auto getVariable = rt()->GetVariable;
  rt()->GetVariable = FailingVariables::get;
  auto failed = process({registerSample(sample)});
  rt()->GetVariable = getVariable;
  ASSERT_EQ(failed->status, EFI_SUCCESS) << lastError().Message;
  EXPECT_EQ(number(findQuestion(failed->set(), kValueQuestions[2])->HiiValue), 0u);
}

// Fields of an 8-byte store: one that ends at the store's end is read, one
// that runs past it or starts at its end is left zero (nothing beyond the
// store's bytes is read).
TEST_F(FormsValuesTest, FieldsPastTheEndOfTheirStoreStayZero) {
  struct Field { UINT16 question, offset; ifr::Width width; UINT64 value; };
  const Field fields[] = {
      {0x30, 0, ifr::Width::U64, 0x0807060504030201},  // the whole store
      {0x31, 4, ifr::Width::U32, 0x08070605},          // ends at the end
      {0x32, 7, ifr::Width::U8, 0x08},                 // the last byte
      {0x33, 6, ifr::Width::U32, 0},                   // two bytes past the end
      {0x34, 5, ifr::Width::U64, 0},
      {0x35, 8, ifr::Width::U16, 0},                   // starts at the end
  };
  OneForm form(8);
  for (const Field& f : fields)
    form.form.numeric(ifr::Numeric(f.question, form.s, form.s, f.width).store(1, f.offset).range(0, ~0ull));
  auto parse = processForm(form, {1, 2, 3, 4, 5, 6, 7, 8});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  for (const Field& f : fields) EXPECT_EQ(number(findQuestion(parse->set(), f.question)->HiiValue), f.value) << f.question;
}

// Hardware vendor nodes whose length fields say `length`, each with `room`
// zero bytes after its header, then the end node.
Bytes path(std::initializer_list<std::pair<UINT16, size_t>> nodes) {
  Bytes out;
  for (auto [length, room] : nodes) {
    out.insert(out.end(), {0x01, 0x04, UINT8(length & 0xFF), UINT8(length >> 8)});
    out.resize(out.size() + room);
  }
  out.insert(out.end(), {0x7F, 0xFF, 4, 0});
  return out;
}

// The device path comes from the driver handle's device-path protocol,
// which is outside input: a path whose node lengths are impossible, or that
// finds no end inside 64 KiB, gives a header without a path (never a read
// past the path, never an endless walk). The handle has no configuration
// access, so every value stays zero.
TEST_F(FormsDevicePathTest, ImpossiblePathsGiveAHeaderWithoutPath) {
  static UINT8 marker;
  const EFI_GUID markerGuid = {0x11111111, 0x2222, 0x3333, {4, 4, 4, 4, 4, 4, 4, 4}};
  const struct { const char* name; Bytes path; bool kept; } rows[] = {  // an empty path: no device-path protocol
      {"no device path", {}, false},
      {"vendor node and end", path({{20, 16}}), true},
      {"node of length 0", path({{0, 16}}), false},
      {"node shorter than its header", path({{3, 16}}), false},
      // Two nodes of 32 KiB fill the 64 KiB a path may take, with no end node.
      {"no end within 64 KiB", path({{0x8000, 0x8000 - 4}, {0x8000, 0x8000 - 4}}), false},
      // The second node claims more than what is left of the 64 KiB.
      {"node past 64 KiB", path({{0x8000, 0x8000 - 4}, {0xFFFF, 0x10000}}), false},
  };
  const Sample sample;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EFI_HANDLE driver = nullptr;
    const EFI_GUID& guid = row.path.empty() ? markerGuid : gEfiDevicePathProtocolGuid;
    void* interface = row.path.empty() ? &marker : const_cast<uint8_t*>(row.path.data());
    ASSERT_EQ(platform().installProtocol(&driver, guid, interface), EFI_SUCCESS);
    EFI_HII_HANDLE handle = nullptr;
    ASSERT_EQ(database().addPackageList(sample.list(), driver, &handle), EFI_SUCCESS);
    {
      auto parse = process({handle});
      ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
      EXPECT_EQ(text16(parse->set()->VarStoreBuffer[0]->ConfigHdr),
                hii::configHdr(kStoreGuid, u"Setup", row.kept ? row.path : Bytes{}));
      for (UINT16 q : kValueQuestions) EXPECT_EQ(number(findQuestion(parse->set(), q)->HiiValue), 0u) << q;
    }
    EXPECT_EQ(database().removePackageList(handle), EFI_SUCCESS);
    EXPECT_EQ(platform().uninstallProtocol(driver, guid, interface), EFI_SUCCESS);
  }
}

}  // namespace
}  // namespace tvl::test::forms
