// Failures: bad arguments, malformed IFR and package framing (with the
// offset and message GetLastError gives), truncated package lists and
// allocation failures; each returns no records and leaves nothing behind.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using ifr::Bytes;

const Bytes kEnd = {EFI_IFR_END_OP, 0x02};
const Bytes kFormSet = op(EFI_IFR_FORM_SET_OP, true, cat({guidBytes(kFormSetGuid), {1, 0, 1, 0, 0}}));
const Bytes kForm = op(EFI_IFR_FORM_OP, true, {1, 0, 1, 0});
const Bytes kText = op(EFI_IFR_TEXT_OP, false, {1, 0, 1, 0, 0, 0});
const Bytes kTrue = op(EFI_IFR_TRUE_OP, false, {});
const Bytes kCheckbox = op(EFI_IFR_CHECKBOX_OP, true, {1, 0, 1, 0, 1, 0, 0, 0, 0xFF, 0xFF, 0, 0});  // no storage
const Bytes kSuppressIf = op(EFI_IFR_SUPPRESS_IF_OP, true, {});

// The offset of IFR byte 0 in the package list (after both headers).
constexpr UINTN kIfrStart = 20 + 4;

struct MalformedCase {  // offset: of the fault in the IFR, or kPackage for the package; message: part of it
  const char* name; Bytes ifr; UINTN offset; const char* message;
};
constexpr UINTN kPackage = ~UINTN(0);

std::vector<MalformedCase> malformedCases() {
  const Bytes head = cat({kFormSet, kForm});
  const UINTN h = head.size();
  Bytes deep = head;
  for (int i = 0; i < 70; ++i) deep = cat({deep, kSuppressIf, kTrue});
  Bytes oneOfU32 = op(EFI_IFR_ONE_OF_OP, false, {1, 0, 1, 0, 2, 0, 0, 0, 0xFF, 0xFF, 0, EFI_IFR_NUMERIC_SIZE_4, 0, 0, 0});
  Bytes varStoreNoNul = op(EFI_IFR_VARSTORE_OP, false, cat({guidBytes(kStoreGuid), {1, 0, 4, 0, 'A', 'B'}}));
  Bytes badDefault = op(EFI_IFR_DEFAULT_OP, false, {0, 0, 0x20, 0});
  return {
      {"opcode shorter than its header", cat({head, {EFI_IFR_TEXT_OP, 0x01}, kEnd, kEnd}), h, "shorter than its header"},
      {"opcode past the package", cat({head, {EFI_IFR_TEXT_OP, 0x7F, 1, 0}}), h, "runs past the end"},
      {"header past the package", cat({head, {EFI_IFR_TEXT_OP}}), h, "header runs past"},
      {"unknown opcode", cat({head, {0x70, 0x02}, kEnd, kEnd}), h, "unknown opcode 0x70"},
      {"END without scope", cat({kFormSet, kEnd, kEnd}), kFormSet.size() + 2, "END without an open scope"},
      {"scope never closed", cat({head, kText, kEnd}), 0, "never closed"},
      {"form inside a question", cat({head, kCheckbox, kForm, kEnd, kEnd, kEnd, kEnd}), h + 14,
       "inside the scope of opcode 0x06"},
      {"option inside a checkbox", cat({head, kCheckbox, op(EFI_IFR_ONE_OF_OPTION_OP, false, {1, 0, 0, 0, 1}),
                                        kEnd, kEnd, kEnd}),
       h + 14, "takes no options"},
      {"statement outside a form", cat({kFormSet, kText, kEnd}), kFormSet.size(), "outside a form"},
      {"opcode outside a form set", cat({kText}), 0, "outside a form set"},
      {"forms package without a form set", Bytes{}, kPackage, "no form set"},
      {"value list longer than its opcode",
       cat({head, kSuppressIf, op(EFI_IFR_EQ_ID_VAL_LIST_OP, false, {1, 0, 5, 0, 1, 0}), kText, kEnd, kEnd, kEnd}),
       h + 2, "list of 5 values"},
      // The form set and the form take two of the 64 levels.
      {"scopes nested too deep", cat({deep, kText}), h + 62 * 4, "deeper than 64"},
      {"condition without expression", cat({head, kSuppressIf, kText, kEnd, kEnd, kEnd}), h, "holds no expression"},
      {"expression outside an expression", cat({head, kTrue, kEnd, kEnd}), h, "outside an expression"},
      {"operator without operands", cat({head, kSuppressIf, op(EFI_IFR_AND_OP, false, {}), kText, kEnd, kEnd, kEnd}),
       h + 2, "too few operands"},
      {"expression leaving two values", cat({head, kSuppressIf, kTrue, kTrue, kText, kEnd, kEnd, kEnd}), h + 2,
       "leaves 2 values"},
      {"undefined values still take their stack entries",
       cat({head, kSuppressIf, ifr::dup(ifr::undefined()).code(), kText, kEnd, kEnd, kEnd}), h + 2, "leaves 2 values"},
      {"class GUID count beyond the opcode",
       cat({op(EFI_IFR_FORM_SET_OP, true, cat({guidBytes(kFormSetGuid), {1, 0, 1, 0, 3}})), kEnd}), 0,
       "class GUIDs"},
      {"one-of too short for its size", cat({head, oneOfU32, kEnd, kEnd}), h, "too short"},
      {"opcode below its minimum length", cat({head, op(EFI_IFR_CHECKBOX_OP, false, {1, 0, 1, 0}), kEnd, kEnd}), h,
       "minimum"},
      {"variable store name without terminator", cat({kFormSet, varStoreNoNul, kEnd}), kFormSet.size(),
       "not terminated"},
      {"default of an unknown type", cat({head, kCheckbox, badDefault, kEnd, kEnd, kEnd}), h + 14,
       "not an IFR value type"},
      {"condition without scope", cat({head, op(EFI_IFR_SUPPRESS_IF_OP, false, {}), kEnd, kEnd}), h, "no scope"},
  };
}

// A database that exports fixed bytes for one handle: package lists the
// real database would refuse.
struct RawDatabase : EFI_HII_DATABASE_PROTOCOL {
  static inline const EFI_HII_HANDLE kHandle = reinterpret_cast<EFI_HII_HANDLE>(0x1000);
  Bytes bytes;
  static EFI_STATUS EFIAPI exportLists(const EFI_HII_DATABASE_PROTOCOL* self, EFI_HII_HANDLE handle, UINTN* size,
                                       EFI_HII_PACKAGE_LIST_HEADER* buffer) {
    const Bytes& b = static_cast<const RawDatabase*>(self)->bytes;
    if (handle != kHandle) return EFI_NOT_FOUND;
    const bool fits = *size >= b.size();
    *size = b.size();
    if (fits && !b.empty()) std::memcpy(buffer, b.data(), b.size());
    return fits ? EFI_SUCCESS : EFI_BUFFER_TOO_SMALL;
  }
  static EFI_STATUS EFIAPI noDriver(const EFI_HII_DATABASE_PROTOCOL*, EFI_HII_HANDLE, EFI_HANDLE*) {
    return EFI_NOT_FOUND;
  }
};

class FormsErrorsTest : public FormsTest {
 protected:
  void installDatabase() override {
    raw_.ExportPackageLists = RawDatabase::exportLists;
    raw_.GetPackageListHandle = RawDatabase::noDriver;
    ASSERT_EQ(platform().installProtocol(&handle_, gEfiHiiDatabaseProtocolGuid, &raw_), EFI_SUCCESS);
  }
  void TearDown() override {
    platform().uninstallProtocol(handle_, gEfiHiiDatabaseProtocolGuid, &raw_);
    FormsTest::TearDown();
  }

  // ProcessForms on `bytes`: success, or a failure with no records and no pool left.
  EFI_STATUS expectHandled(const Bytes& bytes, const std::string& what) {
    raw_.bytes = bytes;
    const size_t before = platform().poolStats().outstanding;
    auto parse = process({RawDatabase::kHandle});
    const EFI_STATUS status = parse->status;
    if (status != EFI_SUCCESS) {
      EXPECT_TRUE(status == EFI_VOLUME_CORRUPTED || status == EFI_NOT_FOUND) << what << ": " << statusName(status);
      EXPECT_TRUE(!parse->sets && !parse->count) << what;
      EXPECT_EQ(lastError().Status, status) << what;
      ++failures_;
    }
    parse.reset();
    EXPECT_EQ(platform().poolStats().outstanding, before) << what;
    return status;
  }

  RawDatabase raw_{};
  EFI_HANDLE handle_ = nullptr;
  size_t failures_ = 0;
};

// Malformed IFR, and damaged framing of the sample's package list.
TEST_F(FormsErrorsTest, MalformedInputIsRefusedWithItsOffsetAndCause) {
  ifr::Strings strings({"en-US"});
  strings.add(u"x");
  std::vector<MalformedCase> cases;
  for (MalformedCase& c : malformedCases())
    cases.push_back({c.name, ifr::packageList(kListGuid, std::vector<Bytes>{ifr::formsPackage(c.ifr)}, strings),
                     c.offset == kPackage ? 20 : kIfrStart + c.offset, c.message});
  const Bytes good = Sample().list();
  const UINTN at = 20 + (good[20] | (good[21] << 8) | (good[22] << 16));  // the first string package
  const UINTN language = at + 46;
  auto damaged = [&good](std::function<void(Bytes&)> damage) {
    Bytes b = good;
    damage(b);
    return b;
  };
  cases.insert(cases.end(), {
      {"list shorter than its header", damaged([](Bytes& b) { b.resize(10); }), 16, "package list length"},
      {"package shorter than its header", damaged([](Bytes& b) { b[20] = 2, b[21] = 0, b[22] = 0; }), 20, "not fit"},
      {"string header past its package", damaged([at](Bytes& b) { b[at + 4] = 0xFF; }), at, "string package header"},
      {"language without terminator", damaged([&](Bytes& b) {
         for (UINTN i = language; i < at + (b[at + 4] | (b[at + 5] << 8)); ++i) b[i] = 'a';
       }), language, "not terminated"},
  });
  for (const MalformedCase& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(expectHandled(c.ifr, c.name), EFI_VOLUME_CORRUPTED);
    HII_FORMS_PROCESSOR_ERROR error = lastError();
    EXPECT_TRUE(error.PackageListIndex == 0 && error.Offset == c.offset) << error.PackageListIndex << " " << error.Offset;
    EXPECT_NE(std::string(error.Message).find(c.message), std::string::npos) << error.Message;
  }
}

TEST_F(FormsErrorsTest, BadArguments) {
  raw_.bytes = Sample().list();
  EFI_HII_HANDLE handles[] = {RawDatabase::kHandle, nullptr};
  UINTN count = 0;
  HII_FORMSET_RECORD** sets = nullptr;
  const struct {
    const char* name; HII_FORMS_PROCESSOR2_PROTOCOL* self; EFI_HII_HANDLE* handles; UINTN handleCount; UINTN* count;
    HII_FORMSET_RECORD*** sets; UINTN failingIndex;
  } cases[] = {
      {"null This", nullptr, handles, 1, &count, &sets, 0}, {"null handle array", forms_, nullptr, 1, &count, &sets, 0},
      {"no handles", forms_, handles, 0, &count, &sets, 0}, {"null count", forms_, handles, 1, nullptr, &sets, 0},
      {"null buffer", forms_, handles, 1, &count, nullptr, 0},
      {"null handle in the array", forms_, handles, 2, &count, &sets, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(forms_->ProcessForms(c.self, c.handles, c.handleCount, nullptr, c.count, c.sets), EFI_INVALID_PARAMETER);
    EXPECT_EQ(sets, nullptr);
    EXPECT_TRUE(lastError().Status == EFI_INVALID_PARAMETER && lastError().PackageListIndex == c.failingIndex);
  }
  // A handle the database never gave out: its status is passed on.
  handles[1] = reinterpret_cast<EFI_HII_HANDLE>(0x7777);
  EXPECT_EQ(forms_->ProcessForms(forms_, handles, 2, nullptr, &count, &sets), EFI_NOT_FOUND);
  EXPECT_EQ(sets, nullptr);
  EXPECT_EQ(lastError().PackageListIndex, 1u);
  EXPECT_NE(std::string(lastError().Message).find("ExportPackageLists"), std::string::npos);
  EXPECT_EQ(forms_->GetLastError(forms_, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(forms_->DestroyFormSets(forms_, 0, nullptr), EFI_SUCCESS);
  EXPECT_EQ(forms_->DestroyFormSets(forms_, 1, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(forms_->DestroyFormSets(nullptr, 0, nullptr), EFI_INVALID_PARAMETER);
}

TEST_F(FormsErrorsTest, EveryTruncationIsHandled) {
  const Bytes good = Sample().list();
  ASSERT_EQ(expectHandled(good, "whole"), EFI_SUCCESS) << lastError().Message;
  for (size_t n = 0; n < good.size(); ++n) {
    // Cut as exported, and cut with the list length made to agree.
    Bytes cut(good.begin(), good.begin() + long(n));
    expectHandled(cut, "cut at " + std::to_string(n));
    if (n >= 20) {
      cut[16] = UINT8(n), cut[17] = UINT8(n >> 8), cut[18] = 0, cut[19] = 0;
      expectHandled(cut, "cut with length at " + std::to_string(n));
    }
  }
  // Only cuts at the four package boundaries after the forms package (three
  // string packages, END), with the length made to agree, give a whole list.
  EXPECT_EQ(failures_, 2 * good.size() - 20 - 4);

  // The forms package cut inside its IFR with every length made to agree.
  const size_t formsLength = good[20] | (good[21] << 8) | (good[22] << 16);
  for (size_t keep = 0; keep < formsLength - 4; ++keep) {
    Bytes bytes(good.begin(), good.begin() + long(24 + keep));
    bytes.insert(bytes.end(), good.begin() + long(20 + formsLength), good.end());
    UINTN forms = keep + 4, list = bytes.size();
    bytes[20] = UINT8(forms), bytes[21] = UINT8(forms >> 8), bytes[22] = UINT8(forms >> 16);
    bytes[16] = UINT8(list), bytes[17] = UINT8(list >> 8);
    EXPECT_EQ(expectHandled(bytes, "IFR cut at " + std::to_string(keep)), EFI_VOLUME_CORRUPTED);
  }
}

// Every allocation of a parse over two handles fails in turn, alone and
// with every later one.
using FormsAllocationTest = FormsTest;

TEST_F(FormsAllocationTest, EveryAllocationFailureOfProcessFormsIsClean) {
  Sample sample;
  EFI_HII_HANDLE handles[] = {registerSample(sample), registerSample(sample)};
  for (FaultMode mode : {FaultMode::Single, FaultMode::From}) {
    UINTN count = 0;
    HII_FORMSET_RECORD** sets = nullptr;
    size_t attempts = sweepAllocationFailures(
        [&] { return forms_->ProcessForms(forms_, handles, 2, nullptr, &count, &sets); },
        [&](EFI_STATUS status, size_t k) {
          EXPECT_EQ(status, EFI_OUT_OF_RESOURCES) << "attempt " << k;
          EXPECT_EQ(sets, nullptr) << "attempt " << k;
          EXPECT_EQ(lastError().Status, EFI_OUT_OF_RESOURCES);
        },
        [&] {
          if (sets) forms_->DestroyFormSets(forms_, count, sets);
          sets = nullptr;
        },
        mode);
    EXPECT_GT(attempts, 50u);
  }
}

}  // namespace
}  // namespace tvl::test::forms
