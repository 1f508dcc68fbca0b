// HII package formats and IFR opcodes (UEFI specification, HII chapters).
// Variable-length packages are read through bounds-checked cursors; only
// the fixed headers below have struct layouts.
#pragma once

#include "uefi/protocols.h"

// ---------------------------------------------------------------- packages
// EFI_HII_PACKAGE_HEADER: 24-bit length (header included) and 8-bit type.
#define HII_PACKAGE_HEADER_SIZE 4u
inline UINT32 hiiPackageLength(const UINT8* header) {
  return UINT32(header[0]) | (UINT32(header[1]) << 8) | (UINT32(header[2]) << 16);
}
inline UINT8 hiiPackageType(const UINT8* header) { return header[3]; }

// String package: header, HdrSize u32, StringInfoOffset u32,
// LanguageWindow CHAR16[16], LanguageName u16, Language (NUL-terminated).
#define HII_STRING_PACKAGE_FIXED_SIZE 46u

// String information blocks.
#define EFI_HII_SIBT_END 0x00
#define EFI_HII_SIBT_STRING_SCSU 0x10
#define EFI_HII_SIBT_STRING_SCSU_FONT 0x11
#define EFI_HII_SIBT_STRINGS_SCSU 0x12
#define EFI_HII_SIBT_STRINGS_SCSU_FONT 0x13
#define EFI_HII_SIBT_STRING_UCS2 0x14
#define EFI_HII_SIBT_STRING_UCS2_FONT 0x15
#define EFI_HII_SIBT_STRINGS_UCS2 0x16
#define EFI_HII_SIBT_STRINGS_UCS2_FONT 0x17
#define EFI_HII_SIBT_DUPLICATE 0x20
#define EFI_HII_SIBT_SKIP2 0x21
#define EFI_HII_SIBT_SKIP1 0x22
#define EFI_HII_SIBT_EXT1 0x30
#define EFI_HII_SIBT_EXT2 0x31
#define EFI_HII_SIBT_EXT4 0x32
#define EFI_HII_SIBT_FONT 0x40

// ---------------------------------------------------------------- IFR
// EFI_IFR_OP_HEADER: OpCode u8, then Length:7 and Scope:1 in one byte.
#define IFR_OP_HEADER_SIZE 2u
inline UINT8 ifrLength(UINT8 lengthAndScope) { return lengthAndScope & 0x7F; }
inline bool ifrScope(UINT8 lengthAndScope) { return (lengthAndScope & 0x80) != 0; }

#define EFI_IFR_FORM_OP 0x01
#define EFI_IFR_SUBTITLE_OP 0x02
#define EFI_IFR_TEXT_OP 0x03
#define EFI_IFR_IMAGE_OP 0x04
#define EFI_IFR_ONE_OF_OP 0x05
#define EFI_IFR_CHECKBOX_OP 0x06
#define EFI_IFR_NUMERIC_OP 0x07
#define EFI_IFR_PASSWORD_OP 0x08
#define EFI_IFR_ONE_OF_OPTION_OP 0x09
#define EFI_IFR_SUPPRESS_IF_OP 0x0A
#define EFI_IFR_LOCKED_OP 0x0B
#define EFI_IFR_ACTION_OP 0x0C
#define EFI_IFR_RESET_BUTTON_OP 0x0D
#define EFI_IFR_FORM_SET_OP 0x0E
#define EFI_IFR_REF_OP 0x0F
#define EFI_IFR_NO_SUBMIT_IF_OP 0x10
#define EFI_IFR_INCONSISTENT_IF_OP 0x11
#define EFI_IFR_EQ_ID_VAL_OP 0x12
#define EFI_IFR_EQ_ID_ID_OP 0x13
#define EFI_IFR_EQ_ID_VAL_LIST_OP 0x14
#define EFI_IFR_AND_OP 0x15
#define EFI_IFR_OR_OP 0x16
#define EFI_IFR_NOT_OP 0x17
#define EFI_IFR_RULE_OP 0x18
#define EFI_IFR_GRAY_OUT_IF_OP 0x19
#define EFI_IFR_DATE_OP 0x1A
#define EFI_IFR_TIME_OP 0x1B
#define EFI_IFR_STRING_OP 0x1C
#define EFI_IFR_REFRESH_OP 0x1D
#define EFI_IFR_DISABLE_IF_OP 0x1E
#define EFI_IFR_ANIMATION_OP 0x1F
#define EFI_IFR_TO_LOWER_OP 0x20
#define EFI_IFR_TO_UPPER_OP 0x21
#define EFI_IFR_MAP_OP 0x22
#define EFI_IFR_ORDERED_LIST_OP 0x23
#define EFI_IFR_VARSTORE_OP 0x24
#define EFI_IFR_VARSTORE_NAME_VALUE_OP 0x25
#define EFI_IFR_VARSTORE_EFI_OP 0x26
#define EFI_IFR_VARSTORE_DEVICE_OP 0x27
#define EFI_IFR_VERSION_OP 0x28
#define EFI_IFR_END_OP 0x29
#define EFI_IFR_MATCH_OP 0x2A
#define EFI_IFR_GET_OP 0x2B
#define EFI_IFR_SET_OP 0x2C
#define EFI_IFR_READ_OP 0x2D
#define EFI_IFR_WRITE_OP 0x2E
#define EFI_IFR_EQUAL_OP 0x2F
#define EFI_IFR_NOT_EQUAL_OP 0x30
#define EFI_IFR_GREATER_THAN_OP 0x31
#define EFI_IFR_GREATER_EQUAL_OP 0x32
#define EFI_IFR_LESS_THAN_OP 0x33
#define EFI_IFR_LESS_EQUAL_OP 0x34
#define EFI_IFR_BITWISE_AND_OP 0x35
#define EFI_IFR_BITWISE_OR_OP 0x36
#define EFI_IFR_BITWISE_NOT_OP 0x37
#define EFI_IFR_SHIFT_LEFT_OP 0x38
#define EFI_IFR_SHIFT_RIGHT_OP 0x39
#define EFI_IFR_ADD_OP 0x3A
#define EFI_IFR_SUBTRACT_OP 0x3B
#define EFI_IFR_MULTIPLY_OP 0x3C
#define EFI_IFR_DIVIDE_OP 0x3D
#define EFI_IFR_MODULO_OP 0x3E
#define EFI_IFR_RULE_REF_OP 0x3F
#define EFI_IFR_QUESTION_REF1_OP 0x40
#define EFI_IFR_QUESTION_REF2_OP 0x41
#define EFI_IFR_UINT8_OP 0x42
#define EFI_IFR_UINT16_OP 0x43
#define EFI_IFR_UINT32_OP 0x44
#define EFI_IFR_UINT64_OP 0x45
#define EFI_IFR_TRUE_OP 0x46
#define EFI_IFR_FALSE_OP 0x47
#define EFI_IFR_TO_UINT_OP 0x48
#define EFI_IFR_TO_STRING_OP 0x49
#define EFI_IFR_TO_BOOLEAN_OP 0x4A
#define EFI_IFR_MID_OP 0x4B
#define EFI_IFR_FIND_OP 0x4C
#define EFI_IFR_TOKEN_OP 0x4D
#define EFI_IFR_STRING_REF1_OP 0x4E
#define EFI_IFR_STRING_REF2_OP 0x4F
#define EFI_IFR_CONDITIONAL_OP 0x50
#define EFI_IFR_QUESTION_REF3_OP 0x51
#define EFI_IFR_ZERO_OP 0x52
#define EFI_IFR_ONE_OP 0x53
#define EFI_IFR_ONES_OP 0x54
#define EFI_IFR_UNDEFINED_OP 0x55
#define EFI_IFR_LENGTH_OP 0x56
#define EFI_IFR_DUP_OP 0x57
#define EFI_IFR_THIS_OP 0x58
#define EFI_IFR_SPAN_OP 0x59
#define EFI_IFR_VALUE_OP 0x5A
#define EFI_IFR_DEFAULT_OP 0x5B
#define EFI_IFR_DEFAULTSTORE_OP 0x5C
#define EFI_IFR_FORM_MAP_OP 0x5D
#define EFI_IFR_CATENATE_OP 0x5E
#define EFI_IFR_GUID_OP 0x5F
#define EFI_IFR_SECURITY_OP 0x60
#define EFI_IFR_MODAL_TAG_OP 0x61
#define EFI_IFR_REFRESH_ID_OP 0x62
#define EFI_IFR_WARNING_IF_OP 0x63
#define EFI_IFR_MATCH2_OP 0x64

// Value types (EFI_IFR_TYPE_*).
#define EFI_IFR_TYPE_NUM_SIZE_8 0x00
#define EFI_IFR_TYPE_NUM_SIZE_16 0x01
#define EFI_IFR_TYPE_NUM_SIZE_32 0x02
#define EFI_IFR_TYPE_NUM_SIZE_64 0x03
#define EFI_IFR_TYPE_BOOLEAN 0x04
#define EFI_IFR_TYPE_TIME 0x05
#define EFI_IFR_TYPE_DATE 0x06
#define EFI_IFR_TYPE_STRING 0x07
#define EFI_IFR_TYPE_OTHER 0x08
#define EFI_IFR_TYPE_UNDEFINED 0x09
#define EFI_IFR_TYPE_ACTION 0x0A
#define EFI_IFR_TYPE_BUFFER 0x0B
#define EFI_IFR_TYPE_REF 0x0C

// Question flags.
#define EFI_IFR_FLAG_READ_ONLY 0x01
#define EFI_IFR_FLAG_CALLBACK 0x04
#define EFI_IFR_FLAG_RESET_REQUIRED 0x10
#define EFI_IFR_FLAG_REST_STYLE 0x20
#define EFI_IFR_FLAG_RECONNECT_REQUIRED 0x40
#define EFI_IFR_FLAG_OPTIONS_ONLY 0x80

// Numeric and one-of flags.
#define EFI_IFR_NUMERIC_SIZE 0x03
#define EFI_IFR_NUMERIC_SIZE_1 0x00
#define EFI_IFR_NUMERIC_SIZE_2 0x01
#define EFI_IFR_NUMERIC_SIZE_4 0x02
#define EFI_IFR_NUMERIC_SIZE_8 0x03
#define EFI_IFR_DISPLAY 0x30
#define EFI_IFR_DISPLAY_INT_DEC 0x00
#define EFI_IFR_DISPLAY_UINT_DEC 0x10
#define EFI_IFR_DISPLAY_UINT_HEX 0x20

// One-of option flags.
#define EFI_IFR_OPTION_DEFAULT 0x10
#define EFI_IFR_OPTION_DEFAULT_MFG 0x20

// Checkbox flags.
#define EFI_IFR_CHECKBOX_DEFAULT 0x01
#define EFI_IFR_CHECKBOX_DEFAULT_MFG 0x02

// String flags.
#define EFI_IFR_STRING_MULTI_LINE 0x01

// Subtitle flags.
#define EFI_IFR_FLAGS_HORIZONTAL 0x01

// Ordered-list flags.
#define EFI_IFR_UNIQUE_SET 0x01
#define EFI_IFR_NO_EMPTY_SET 0x02

// Fixed opcode sizes (header included). Question opcodes start with the
// 2-byte opcode header, the 4-byte statement header (Prompt, Help) and the
// rest of the 11-byte question header (QuestionId, VarStoreId,
// VarStoreInfo, Flags). One-of and numeric opcodes end in Min/Max/Step of
// the question's width; options and constant defaults in their value.
#define EFI_IFR_STATEMENT_HEADER_SIZE 4u
#define EFI_IFR_QUESTION_HEADER_SIZE 11u
#define EFI_IFR_FORM_SET_FIXED_SIZE 23u  // then 16 bytes per class GUID
#define EFI_IFR_FORM_SIZE 6u
#define EFI_IFR_SUBTITLE_SIZE 7u
#define EFI_IFR_TEXT_SIZE 8u
#define EFI_IFR_IMAGE_SIZE 4u
#define EFI_IFR_CHECKBOX_SIZE 14u
#define EFI_IFR_NUMERIC_FIXED_SIZE 14u  // then 3 x width bytes
#define EFI_IFR_ONE_OF_FIXED_SIZE 14u   // then 3 x width bytes
#define EFI_IFR_ONE_OF_OPTION_FIXED_SIZE 6u  // then the value
#define EFI_IFR_PASSWORD_SIZE 17u
#define EFI_IFR_STRING_SIZE 16u
#define EFI_IFR_ORDERED_LIST_SIZE 15u
#define EFI_IFR_ACTION_SIZE 15u
#define EFI_IFR_ACTION_1_SIZE 13u
#define EFI_IFR_REF_SIZE 15u
#define EFI_IFR_REF2_SIZE 17u
#define EFI_IFR_REF3_SIZE 33u
#define EFI_IFR_REF4_SIZE 35u
#define EFI_IFR_REF5_SIZE 13u
#define EFI_IFR_VARSTORE_FIXED_SIZE 22u      // then the NUL-terminated ASCII name
#define EFI_IFR_VARSTORE_EFI_FIXED_SIZE 26u  // then the NUL-terminated ASCII name
#define EFI_IFR_VARSTORE_NAME_VALUE_SIZE 20u
#define EFI_IFR_DEFAULTSTORE_SIZE 6u
#define EFI_IFR_DEFAULT_FIXED_SIZE 5u  // then the value; alone (scope) for an expression
#define EFI_IFR_EQ_ID_VAL_SIZE 6u
#define EFI_IFR_EQ_ID_ID_SIZE 6u
#define EFI_IFR_EQ_ID_VAL_LIST_FIXED_SIZE 6u  // then 2 bytes per value
#define EFI_IFR_QUESTION_REF1_SIZE 4u
#define EFI_IFR_GUID_FIXED_SIZE 18u

// Question without storage.
#define EFI_VARSTORE_ID_INVALID 0x0000
#define EFI_VAROFFSET_INVALID 0xFFFF

// EDK2 extension opcodes: EFI_IFR_GUID with this GUID, then an extended
// opcode byte; a label is EFI_IFR_GUID_LABEL (21 bytes, Number u16).
#define EFI_IFR_TIANO_GUID \
  { 0x0f0b1735, 0x87a0, 0x4193, { 0xb2, 0x66, 0x53, 0x8c, 0x38, 0xaf, 0x48, 0xce } }
#define EFI_IFR_EXTEND_OP_LABEL 0x00
#define EFI_IFR_GUID_LABEL_SIZE 21u

// Default stores.
#define EFI_HII_DEFAULT_CLASS_STANDARD 0x0000
#define EFI_HII_DEFAULT_CLASS_MANUFACTURING 0x0001

// Form-set class GUID of platform setup.
#define EFI_HII_PLATFORM_SETUP_FORMSET_GUID \
  { 0x93039971, 0x8545, 0x4b04, { 0xb4, 0x5e, 0x32, 0xeb, 0x83, 0x26, 0x04, 0x0e } }

// The GUIDs above as objects, for calls that take their address.
inline constexpr EFI_GUID gEfiHiiPlatformSetupFormsetGuid = EFI_HII_PLATFORM_SETUP_FORMSET_GUID;
