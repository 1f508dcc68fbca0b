// Records of parsed HII form sets, as the forms-processor service lays them
// out and the driver reads them. The layout is an interface between two
// separately built images: every field the driver reads sits at a fixed
// byte offset (little-endian, 64-bit pointers and counts), checked below.
// Stretches the driver does not read are named Reserved* or carry the
// service's own bookkeeping; the driver must not depend on them.
//
// Ownership: a FormSetBuffer and everything reachable from it belong to the
// service that made it and go back to it exactly once (DestroyFormSets).
// Collections are arrays of pointers with a count beside them; a count of 0
// means the array pointer is not read.
#pragma once

#include "uefi/protocols.h"

#define TVL_RECORD_FIELD(type, field, offset) \
  static_assert(__builtin_offsetof(type, field) == (offset), #type "." #field " offset")

// ---------------------------------------------------------------- value
// One value: a number, boolean, string id or reference in `Value`, or a
// byte buffer (the UCS-2 text of a string question, the elements of an
// ordered list) in `Buffer`.
struct HII_VALUE {
  UINT8 Type;  // EFI_IFR_TYPE_*
  UINT8 Reserved[7];
  UINT8* Buffer;     // null unless the value needs bytes of its own
  UINT16 BufferLen;  // bytes of `Buffer` that hold the value (service bookkeeping)
  // EFI_IFR_TYPE_VALUE, packed: numbers and booleans from byte 0, a string
  // id at byte 0, EFI_HII_REF (QuestionId, FormId, FormSetGuid, DevicePath)
  // from byte 0. The field is not aligned; read it byte-wise.
  UINT8 Value[22];
};
static_assert(sizeof(HII_VALUE) == 40, "HII_VALUE is 40 bytes");
TVL_RECORD_FIELD(HII_VALUE, Type, 0);
TVL_RECORD_FIELD(HII_VALUE, Buffer, 8);
TVL_RECORD_FIELD(HII_VALUE, BufferLen, 16);
TVL_RECORD_FIELD(HII_VALUE, Value, 18);

// Little-endian number of `width` bytes (1, 2, 4 or 8) from the start of a
// value, and back.
inline UINT64 hiiValueNumber(const HII_VALUE& v, UINTN width) {
  UINT64 n = 0;
  for (UINTN i = width > 8 ? 8 : width; i-- > 0;) n = (n << 8) | v.Value[i];
  return n;
}
inline void hiiValueSetNumber(HII_VALUE& v, UINT64 n, UINTN width) {
  for (UINTN i = 0; i < width && i < 8; ++i) v.Value[i] = UINT8(n >> (8 * i));
}
// Width in bytes of the number types 0 to 3 (EFI_IFR_TYPE_NUM_SIZE_*).
inline UINTN hiiNumberWidth(UINT8 type) { return type <= 3 ? UINTN(1) << type : 0; }

struct HII_FORM_RECORD;
struct HII_STATEMENT_RECORD;
struct HII_OPTION_RECORD;
struct HII_DEFAULT_RECORD;
struct HII_EXPRESSION_RECORD;
struct HII_VARSTORE_RECORD;
struct HII_DEFAULTSTORE_RECORD;

// ---------------------------------------------------------------- form set
struct HII_FORMSET_RECORD {
  EFI_GUID Guid;              // 0: the form set's GUID
  EFI_HII_HANDLE HiiHandle;   // 16: package list it came from
  EFI_HANDLE DriverHandle;    // 24: driver handle owning that package list, or null
  UINT64 NumberOfLanguages;   // 32
  CHAR8** Languages;          // 40: language tags of the package list's string packages
  UINT64 PackageListIndex;    // 48: position of the HII handle in the request
  UINT8 Reserved56[8];        // 56
  UINT16 FormSetTitle;        // 64
  UINT16 FormSetHelp;         // 66
  UINT8 ClassGuidCount;       // 68: entries used in ClassGuid
  UINT8 Reserved69[3];        // 69
  EFI_GUID ClassGuid[3];      // 72: the form set's class GUIDs
  UINT8 Reserved120[8];       // 120
  UINT64 FormCount;           // 128
  HII_FORM_RECORD** Forms;    // 136: in the form set's order
  UINT64 VarStoreBufferCount; // 144
  HII_VARSTORE_RECORD** VarStoreBuffer;  // 152: in declaration order
  UINT64 DefaultStoreCount;   // 160
  HII_DEFAULTSTORE_RECORD** DefaultStores;  // 168: in declaration order
};
static_assert(sizeof(HII_FORMSET_RECORD) == 176, "HII_FORMSET_RECORD size");
TVL_RECORD_FIELD(HII_FORMSET_RECORD, NumberOfLanguages, 32);
TVL_RECORD_FIELD(HII_FORMSET_RECORD, Languages, 40);
TVL_RECORD_FIELD(HII_FORMSET_RECORD, FormSetTitle, 64);
TVL_RECORD_FIELD(HII_FORMSET_RECORD, FormSetHelp, 66);
TVL_RECORD_FIELD(HII_FORMSET_RECORD, FormCount, 128);
TVL_RECORD_FIELD(HII_FORMSET_RECORD, Forms, 136);
TVL_RECORD_FIELD(HII_FORMSET_RECORD, VarStoreBufferCount, 144);
TVL_RECORD_FIELD(HII_FORMSET_RECORD, VarStoreBuffer, 152);
TVL_RECORD_FIELD(HII_FORMSET_RECORD, DefaultStoreCount, 160);
TVL_RECORD_FIELD(HII_FORMSET_RECORD, DefaultStores, 168);

// ---------------------------------------------------------------- form
struct HII_FORM_RECORD {
  UINT16 FormId;     // 0
  UINT16 FormTitle;  // 2
  UINT8 IsFormMap;   // 4: 1 when the form came from EFI_IFR_FORM_MAP
  UINT8 Reserved5[11];
  UINT64 StatementCount;                // 16
  HII_STATEMENT_RECORD** Statements;    // 24: in the form's order
};
static_assert(sizeof(HII_FORM_RECORD) == 32, "HII_FORM_RECORD size");
TVL_RECORD_FIELD(HII_FORM_RECORD, FormId, 0);
TVL_RECORD_FIELD(HII_FORM_RECORD, FormTitle, 2);
TVL_RECORD_FIELD(HII_FORM_RECORD, StatementCount, 16);
TVL_RECORD_FIELD(HII_FORM_RECORD, Statements, 24);

// ---------------------------------------------------------------- statement
struct HII_STATEMENT_RECORD {
  UINT8 Operand;             // 0: IFR opcode
  UINT8 OpcodeFlags;         // 1: the opcode's own flags byte (numeric size, checkbox defaults, ...)
  UINT16 Prompt;             // 2
  UINT16 Help;               // 4
  UINT16 QuestionId;         // 6: 0 for statements that are not questions
  UINT16 VarStoreId;         // 8: 0 when the question has no storage
  UINT16 VarOffset;          // 10: byte offset in a buffer store, or the name string id of a name/value store
  UINT8 QuestionFlags;       // 12: EFI_IFR_FLAG_*
  UINT8 MaxContainers;       // 13: ordered list: element count
  UINT8 Reserved14[2];
  HII_VARSTORE_RECORD* VarStore;  // 16
  UINT16 StorageWidth;       // 24
  UINT8 Reserved26[14];
  CHAR16* BlockName;         // 40: "&OFFSET=...&WIDTH=..." or null
  HII_VALUE HiiValue;        // 48: current value
  UINT8 ValueType;           // 88: 0..3 size code (ordered list: element width)
  UINT8 ReadOnlyFlag;        // 89
  UINT8 Reserved90;
  UINT8 ResetRequired;       // 91
  UINT8 Reserved92[4];
  UINT8 CheckboxDefault;     // 96
  UINT8 CheckboxDefaultMfg;  // 97
  UINT8 Reserved98[10];
  UINT16 TextTwo;            // 108
  UINT8 Reserved110[2];
  UINT64 Minimum;            // 112
  UINT64 Maximum;            // 120
  UINT64 Step;               // 128
  UINT64 Offset;             // 136: byte offset of the opcode in its package list
  UINT8 Reserved144[24];
  UINT64 DefaultCount;                  // 168
  HII_DEFAULT_RECORD** Defaults;        // 176
  UINT64 OptionCount;                   // 184
  HII_OPTION_RECORD** Options;          // 192: in the question's order
  UINT8 Reserved200[2];
  UINT8 LockedFlag;                     // 202
  UINT8 Reserved203[5];
  HII_EXPRESSION_RECORD* ReadOnlyCondition;  // 208
  UINT8 Reserved216[80];
  UINT8 DisabledMark;        // 296
  UINT8 SuppressedMark;      // 297
  UINT8 ReadOnlyMark;        // 298
  UINT8 Reserved299[5];
};
static_assert(sizeof(HII_STATEMENT_RECORD) == 304, "HII_STATEMENT_RECORD size");
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, Operand, 0);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, Prompt, 2);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, Help, 4);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, VarStore, 16);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, StorageWidth, 24);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, BlockName, 40);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, HiiValue, 48);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, ValueType, 88);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, ReadOnlyFlag, 89);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, ResetRequired, 91);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, CheckboxDefault, 96);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, CheckboxDefaultMfg, 97);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, TextTwo, 108);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, Minimum, 112);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, Maximum, 120);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, Step, 128);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, DefaultCount, 168);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, Defaults, 176);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, OptionCount, 184);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, Options, 192);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, LockedFlag, 202);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, ReadOnlyCondition, 208);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, DisabledMark, 296);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, SuppressedMark, 297);
TVL_RECORD_FIELD(HII_STATEMENT_RECORD, ReadOnlyMark, 298);

// ---------------------------------------------------------------- option
struct HII_OPTION_RECORD {
  UINT16 OptionText;       // 0
  UINT8 OptionIsDefault;   // 2
  UINT8 OptionFlags;       // 3: EFI_IFR_OPTION_* flags of the opcode
  UINT8 Reserved4[4];
  HII_VALUE Value;         // 8
  UINT8 Reserved48[24];
  UINT8 OptionSuppressed;  // 72
  UINT8 Reserved73[7];
};
static_assert(sizeof(HII_OPTION_RECORD) == 80, "HII_OPTION_RECORD size");
TVL_RECORD_FIELD(HII_OPTION_RECORD, OptionText, 0);
TVL_RECORD_FIELD(HII_OPTION_RECORD, OptionIsDefault, 2);
TVL_RECORD_FIELD(HII_OPTION_RECORD, Value, 8);
TVL_RECORD_FIELD(HII_OPTION_RECORD, OptionSuppressed, 72);

// ---------------------------------------------------------------- default
struct HII_DEFAULT_RECORD {
  UINT16 DefaultId;  // 0
  UINT8 Reserved2[6];
  HII_VALUE Value;   // 8: Type EFI_IFR_TYPE_OTHER when ValueExpression gives it
  HII_EXPRESSION_RECORD* ValueExpression;  // 48
};
static_assert(sizeof(HII_DEFAULT_RECORD) == 56, "HII_DEFAULT_RECORD size");
TVL_RECORD_FIELD(HII_DEFAULT_RECORD, DefaultId, 0);
TVL_RECORD_FIELD(HII_DEFAULT_RECORD, Value, 8);
TVL_RECORD_FIELD(HII_DEFAULT_RECORD, ValueExpression, 48);

// ---------------------------------------------------------------- expression
struct HII_EXPRESSION_RECORD {
  UINT8 Kind;        // 0: the IFR opcode that holds the expression (grayoutif, value)
  UINT8 Reserved1[7];
  HII_VALUE Result;  // 8: the evaluated result
};
static_assert(sizeof(HII_EXPRESSION_RECORD) == 48, "HII_EXPRESSION_RECORD size");
TVL_RECORD_FIELD(HII_EXPRESSION_RECORD, Result, 8);

// ---------------------------------------------------------------- variable store
struct HII_VARSTORE_RECORD {
  UINT16 VarStoreId;  // 0
  UINT8 StoreType;    // 2: EFI_IFR_VARSTORE_OP, EFI_IFR_VARSTORE_EFI_OP or EFI_IFR_VARSTORE_NAME_VALUE_OP
  UINT8 Reserved3;
  UINT32 Attributes;  // 4: EFI variable attributes (EFI variable stores)
  UINT16 Size;        // 8: bytes of the store (buffer stores)
  UINT8 Reserved10[6];
  EFI_GUID Guid;      // 16
  CHAR16* Name;       // 32: UCS-2 name of the store (empty for name/value stores)
  UINT8 Reserved40[48];
  CHAR16* ConfigHdr;  // 88: "GUID=...&NAME=...&PATH=..."
};
static_assert(sizeof(HII_VARSTORE_RECORD) == 96, "HII_VARSTORE_RECORD size");
TVL_RECORD_FIELD(HII_VARSTORE_RECORD, Guid, 16);
TVL_RECORD_FIELD(HII_VARSTORE_RECORD, ConfigHdr, 88);

// ---------------------------------------------------------------- default store
struct HII_DEFAULTSTORE_RECORD {
  UINT16 DefaultId;    // 0
  UINT16 DefaultName;  // 2
  UINT8 Reserved4[4];
};
static_assert(sizeof(HII_DEFAULTSTORE_RECORD) == 8, "HII_DEFAULTSTORE_RECORD size");
TVL_RECORD_FIELD(HII_DEFAULTSTORE_RECORD, DefaultName, 2);

// The array of form sets that ProcessForms hands out: FormSetBufferCount
// pointers to HII_FORMSET_RECORD.
typedef HII_FORMSET_RECORD** FormSetBuffer;

#undef TVL_RECORD_FIELD
