// Failures: bad arguments, malformed IFR and package framing (with the
// offset and message GetLastError gives), sweeps of corrupted variants,
// and allocation failures. Every failure returns no records and leaves no
// pool allocation behind.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using ifr::Bytes;

// ---------------------------------------------------------------- IFR bytes
const Bytes kEnd = {EFI_IFR_END_OP, 0x02};
const Bytes kFormSet = op(EFI_IFR_FORM_SET_OP, true, cat({guidBytes(kFormSetGuid), {1, 0, 1, 0, 0}}));
const Bytes kForm = op(EFI_IFR_FORM_OP, true, {1, 0, 1, 0});
const Bytes kText = op(EFI_IFR_TEXT_OP, false, {1, 0, 1, 0, 0, 0});
const Bytes kTrue = op(EFI_IFR_TRUE_OP, false, {});
// Checkbox 0x0001 without storage.
Bytes checkbox(bool scope) { return op(EFI_IFR_CHECKBOX_OP, scope, {1, 0, 1, 0, 1, 0, 0, 0, 0xFF, 0xFF, 0, 0}); }
Bytes suppressIf() { return op(EFI_IFR_SUPPRESS_IF_OP, true, {}); }

// The offset of IFR byte 0 in the package list (list header, then the
// forms package header).
constexpr UINTN kIfrStart = 20 + 4;

struct MalformedCase {
  const char* name;
  Bytes ifr;
  UINTN offset;         // of the fault in the IFR, or kPackage for the package itself
  const char* message;  // part of GetLastError's message
};
constexpr UINTN kPackage = ~UINTN(0);

std::vector<MalformedCase> malformedCases() {
  const Bytes head = cat({kFormSet, kForm});
  const UINTN h = head.size();
  Bytes deep = head;
  for (int i = 0; i < 70; ++i) deep = cat({deep, suppressIf(), kTrue});
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
      {"form inside a question", cat({head, checkbox(true), kForm, kEnd, kEnd, kEnd, kEnd}), h + 14,
       "inside the scope of opcode 0x06"},
      {"option inside a checkbox", cat({head, checkbox(true), op(EFI_IFR_ONE_OF_OPTION_OP, false, {1, 0, 0, 0, 1}),
                                        kEnd, kEnd, kEnd}),
       h + 14, "takes no options"},
      {"statement outside a form", cat({kFormSet, kText, kEnd}), kFormSet.size(), "outside a form"},
      {"opcode outside a form set", cat({kText}), 0, "outside a form set"},
      {"forms package without a form set", Bytes{}, kPackage, "no form set"},
      {"value list longer than its opcode",
       cat({head, suppressIf(), op(EFI_IFR_EQ_ID_VAL_LIST_OP, false, {1, 0, 5, 0, 1, 0}), kText, kEnd, kEnd, kEnd}),
       h + 2, "list of 5 values"},
      // The form set and the form take two of the 64 levels; the 63rd
      // condition is one too many.
      {"scopes nested too deep", cat({deep, kText}), h + 62 * 4, "deeper than 64"},
      {"condition without expression", cat({head, suppressIf(), kText, kEnd, kEnd, kEnd}), h, "holds no expression"},
      {"expression outside an expression", cat({head, kTrue, kEnd, kEnd}), h, "outside an expression"},
      {"operator without operands", cat({head, suppressIf(), op(EFI_IFR_AND_OP, false, {}), kText, kEnd, kEnd, kEnd}),
       h + 2, "too few operands"},
      {"expression leaving two values", cat({head, suppressIf(), kTrue, kTrue, kText, kEnd, kEnd, kEnd}), h + 2,
       "leaves 2 values"},
      {"class GUID count beyond the opcode",
       cat({op(EFI_IFR_FORM_SET_OP, true, cat({guidBytes(kFormSetGuid), {1, 0, 1, 0, 3}})), kEnd}), 0,
       "class GUIDs"},
      {"one-of too short for its size", cat({head, oneOfU32, kEnd, kEnd}), h, "too short"},
      {"opcode below its minimum length", cat({head, op(EFI_IFR_CHECKBOX_OP, false, {1, 0, 1, 0}), kEnd, kEnd}), h,
       "minimum"},
      {"variable store name without terminator", cat({kFormSet, varStoreNoNul, kEnd}), kFormSet.size(),
       "not terminated"},
      {"default of an unknown type", cat({head, checkbox(true), badDefault, kEnd, kEnd, kEnd}), h + 14,
       "not an IFR value type"},
      {"condition without scope", cat({head, op(EFI_IFR_SUPPRESS_IF_OP, false, {}), kEnd, kEnd}), h, "no scope"},
  };
}

class FormsErrorsTest : public FormsTest {
 protected:
  EFI_HII_HANDLE registerIfr(const Bytes& ifrBytes) {
    ifr::Strings strings({"en-US"});
    strings.add(u"x");
    devices::Device& device = addDevice();
    return device.addPackageList(
        ifr::packageList(kListGuid, std::vector<Bytes>{ifr::formsPackage(ifrBytes)}, strings));
  }
};

TEST_F(FormsErrorsTest, MalformedIfrIsRefusedWithItsOffsetAndCause) {
  for (const MalformedCase& c : malformedCases()) {
    SCOPED_TRACE(c.name);
    EFI_HII_HANDLE handle = registerIfr(c.ifr);
    const size_t before = platform().poolStats().outstanding;
    auto parse = process({handle});
    EXPECT_EQ(parse->status, EFI_VOLUME_CORRUPTED);
    EXPECT_EQ(parse->sets, nullptr);
    EXPECT_EQ(parse->count, 0u);
    EXPECT_EQ(platform().poolStats().outstanding, before);
    HII_FORMS_PROCESSOR_ERROR error = lastError();
    EXPECT_EQ(error.Status, EFI_VOLUME_CORRUPTED);
    EXPECT_EQ(error.PackageListIndex, 0u);
    EXPECT_EQ(error.Offset, c.offset == kPackage ? 20u : kIfrStart + c.offset);
    EXPECT_NE(std::string(error.Message).find(c.message), std::string::npos) << error.Message;
  }
}

TEST_F(FormsErrorsTest, BadArguments) {
  EFI_HII_HANDLE handle = registerIfr(cat({kFormSet, kForm, kText, kEnd, kEnd}));
  EFI_HII_HANDLE handles[] = {handle, nullptr};
  UINTN count = 0;
  HII_FORMSET_RECORD** sets = nullptr;
  const struct {
    const char* name;
    HII_FORMS_PROCESSOR2_PROTOCOL* self;
    EFI_HII_HANDLE* handles;
    UINTN handleCount;
    UINTN* count;
    HII_FORMSET_RECORD*** sets;
    UINTN failingIndex;
  } cases[] = {
      {"null This", nullptr, handles, 1, &count, &sets, 0},
      {"null handle array", forms_, nullptr, 1, &count, &sets, 0},
      {"no handles", forms_, handles, 0, &count, &sets, 0},
      {"null count", forms_, handles, 1, nullptr, &sets, 0},
      {"null buffer", forms_, handles, 1, &count, nullptr, 0},
      {"null handle in the array", forms_, handles, 2, &count, &sets, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(forms_->ProcessForms(c.self, c.handles, c.handleCount, nullptr, c.count, c.sets), EFI_INVALID_PARAMETER);
    EXPECT_EQ(sets, nullptr);
    HII_FORMS_PROCESSOR_ERROR error = lastError();
    EXPECT_EQ(error.Status, EFI_INVALID_PARAMETER);
    EXPECT_EQ(error.PackageListIndex, c.failingIndex);
  }
  // A handle the database never gave out: its status is passed on.
  EFI_HII_HANDLE unknown[] = {handle, reinterpret_cast<EFI_HII_HANDLE>(0x7777)};
  EFI_STATUS status = forms_->ProcessForms(forms_, unknown, 2, nullptr, &count, &sets);
  EXPECT_TRUE(EFI_ERROR(status));
  EXPECT_EQ(sets, nullptr);
  EXPECT_EQ(lastError().PackageListIndex, 1u);
  EXPECT_NE(std::string(lastError().Message).find("ExportPackageLists"), std::string::npos);
  EXPECT_EQ(forms_->GetLastError(forms_, nullptr), EFI_INVALID_PARAMETER);
}

// ---------------------------------------------------------------- raw package lists
// A valid list: header, a forms package holding a rich form set, a
// string package, the END package.
Bytes validList() {
  ifr::Strings strings({"en-US", "x-UEFI"});
  UINT16 s = strings.add(u"x");
  ifr::FormSetBuilder fs(kFormSetGuid, s, s);
  fs.varStore(1, kStoreGuid, "Setup", 16);
  fs.form(1, s)
      .subtitle(s)
      .suppressIf(ifr::And(ifr::ideqval(1, 1), ifr::Not(ifr::False())),
                  [s](ifr::FormBuilder& f) {
                    f.oneOf(ifr::OneOf(1, s, s).store(1, 0).option(s, 1).option(s, 2, EFI_IFR_OPTION_DEFAULT));
                  })
      .checkbox(ifr::Checkbox(2, s, s).store(1, 1).defaultExpression(ifr::ideqvallist(1, {1, 2})))
      .string(ifr::String(3, s, s, 1, 4).store(1, 2).grayOutIf(ifr::True(), [](ifr::String&) {}))
      .orderedList(ifr::OrderedList(4, s, s, ifr::Width::U8, 2).store(1, 10).option(s, 1).option(s, 2));
  return ifr::packageList(kListGuid, fs, strings);
}

class FormsCorruptionTest : public FormsTest {
 protected:
  FormsCorruptionTest() { useRawDatabase_ = true; }

  // Runs ProcessForms on `bytes` and checks the outcome: success, or a
  // failure with no records; no pool allocation outlives the call.
  void expectHandled(const Bytes& bytes, const std::string& what) {
    raw_->setBytes(bytes);
    const size_t before = platform().poolStats().outstanding;
    {
      auto parse = process({raw_->handle()});
      if (parse->status != EFI_SUCCESS) {
        EXPECT_TRUE(parse->status == EFI_VOLUME_CORRUPTED || parse->status == EFI_NOT_FOUND)
            << what << ": " << statusName(parse->status);
        EXPECT_EQ(parse->sets, nullptr) << what;
        EXPECT_EQ(lastError().Status, parse->status) << what;
        ++failures_;
      }
    }
    EXPECT_EQ(platform().poolStats().outstanding, before) << what;
  }

  size_t failures_ = 0;
};

struct FramingCase {
  const char* name;
  std::function<void(Bytes&)> damage;
  UINTN offset;
  const char* message;
};

TEST_F(FormsCorruptionTest, DamagedFramingIsRefused) {
  const Bytes good = validList();
  const UINTN formsLength = good[20] | (good[21] << 8) | (good[22] << 16);
  const UINTN strings = 20 + formsLength;
  const FramingCase cases[] = {
      {"list shorter than its header", [](Bytes& b) { b.resize(10); }, 16, "package list length"},
      {"list length beyond the bytes", [](Bytes& b) { b[16] = 0xFF, b[17] = 0xFF; }, 16, "package list length"},
      {"package shorter than its header", [](Bytes& b) { b[20] = 2, b[21] = 0, b[22] = 0; }, 20, "does not fit"},
      {"package past the list", [](Bytes& b) { b[22] = 0x7F; }, 20, "does not fit"},
      {"string header past its package", [strings](Bytes& b) { b[strings + 4] = 0xFF; }, strings,
       "string package header"},
      {"language without terminator",
       [strings](Bytes& b) {
         UINTN hdr = b[strings + 4] | (b[strings + 5] << 8);
         for (UINTN i = strings + 46; i < strings + hdr; ++i) b[i] = 'a';
       },
       strings + 46, "not terminated"},
  };
  for (const FramingCase& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = good;
    c.damage(bytes);
    raw_->setBytes(bytes);
    auto parse = process({raw_->handle()});
    EXPECT_EQ(parse->status, EFI_VOLUME_CORRUPTED);
    EXPECT_EQ(lastError().Offset, c.offset);
    EXPECT_NE(std::string(lastError().Message).find(c.message), std::string::npos) << lastError().Message;
  }
}

TEST_F(FormsCorruptionTest, EveryTruncationIsHandled) {
  const Bytes good = validList();
  raw_->setBytes(good);
  {
    auto parse = process({raw_->handle()});
    ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
    EXPECT_EQ(findQuestion(parse->set(), 3)->ReadOnlyCondition->Result.Value[0], 1);
  }
  for (size_t n = 0; n < good.size(); ++n) {
    // Cut as exported, and cut with the list length made to agree.
    Bytes cut(good.begin(), good.begin() + long(n));
    expectHandled(cut, "cut at " + std::to_string(n));
    if (n >= 20) {
      cut[16] = UINT8(n), cut[17] = UINT8(n >> 8), cut[18] = 0, cut[19] = 0;
      expectHandled(cut, "cut with length at " + std::to_string(n));
    }
  }
  // Only cuts at the three package boundaries after the forms package,
  // with the length made to agree, give a whole list.
  EXPECT_EQ(failures_, 2 * good.size() - 20 - 3);

  // The forms package cut inside its IFR with every length made to agree.
  const size_t formsLength = good[20] | (good[21] << 8) | (good[22] << 16);
  for (size_t keep = 0; keep < formsLength - 4; ++keep) {
    Bytes bytes(good.begin(), good.begin() + long(24 + keep));
    bytes.insert(bytes.end(), good.begin() + long(20 + formsLength), good.end());
    UINTN forms = keep + 4, list = bytes.size();
    bytes[20] = UINT8(forms), bytes[21] = UINT8(forms >> 8), bytes[22] = UINT8(forms >> 16);
    bytes[16] = UINT8(list), bytes[17] = UINT8(list >> 8);
    raw_->setBytes(bytes);
    EXPECT_EQ(process({raw_->handle()})->status, EFI_VOLUME_CORRUPTED) << "IFR cut at " << keep;
  }
}

TEST_F(FormsCorruptionTest, ChangedOpcodeLengthsAreHandled) {
  const Bytes good = validList();
  const size_t formsLength = good[20] | (good[21] << 8) | (good[22] << 16);
  size_t opcodes = 0;
  for (size_t pos = 24; pos + 1 < 20 + formsLength; pos += good[pos + 1] & 0x7F, ++opcodes) {
    const UINT8 length = good[pos + 1] & 0x7F, scope = good[pos + 1] & 0x80;
    for (UINT8 changed : {UINT8(scope | 0), UINT8(scope | 1), UINT8(scope | (length - 1)),
                          UINT8(scope | ((length + 1) & 0x7F)), UINT8(scope | 0x7F), UINT8(good[pos + 1] ^ 0x80)}) {
      Bytes bytes = good;
      bytes[pos + 1] = changed;
      expectHandled(bytes, "opcode at " + std::to_string(pos) + " length " + std::to_string(changed));
    }
  }
  EXPECT_GT(opcodes, 20u);
  EXPECT_GT(failures_, opcodes * 4);
}

TEST_F(FormsCorruptionTest, RandomMutationsAreHandled) {
  const Bytes good = validList();
  std::mt19937 random(20240611);
  for (int round = 0; round < 3000; ++round) {
    Bytes bytes = good;
    int changes = 1 + int(random() % 4);
    for (int i = 0; i < changes; ++i) bytes[random() % bytes.size()] = UINT8(random());
    expectHandled(bytes, "mutation round " + std::to_string(round));
    if (HasFailure()) break;
  }
  EXPECT_GT(failures_, 0u);
}

// ---------------------------------------------------------------- allocation failures
using FormsAllocationTest = FormsTest;

TEST_F(FormsAllocationTest, EveryAllocationFailureOfProcessFormsIsClean) {
  Sample sample;
  devices::Device& device = addDevice();
  device.addBufferStorage(kStoreGuid, u"Setup", std::vector<UINT8>(16, 1));
  EFI_HII_HANDLE handles[] = {registerSample(sample), device.addPackageList(validList())};
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
