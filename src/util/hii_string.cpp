#include "util/hii_string.h"

#include "driver/trace.h"
#include "uefi/runtime.h"
#include "util/text.h"

using tvl::rt::Pool;

namespace {

constexpr UINTN kFirstBufferBytes = 512;  // 256 UCS-2 characters
constexpr const CHAR8* kFunction = "GetString";

// Characters before the terminator, never past the buffer: a service that
// fills the whole buffer without a terminator cannot make the driver read
// beyond it.
UINTN boundedLength(const CHAR16* text, UINTN bytes) {
  UINTN capacity = bytes / sizeof(CHAR16);
  UINTN n = 0;
  while (n < capacity && text[n] != 0) ++n;
  return n;
}

}  // namespace

extern "C" EFI_STATUS GetString(const CHAR8* Language, EFI_HII_HANDLE HiiHandle, EFI_STRING_ID StringId,
                                CHAR8** Text) {
  if (Language == nullptr || HiiHandle == nullptr || StringId == 0 || Text == nullptr) {
    tvl::trace(TVL_LEVEL_TOOLBOX, kFunction, u"GetString invalid parameter: %r\n", EFI_INVALID_PARAMETER);
    return EFI_INVALID_PARAMETER;
  }
  tvl::trace(TVL_LEVEL_TOOLBOX, kFunction, u"GetString StringId:%d Language:%a\n", UINT32(StringId), Language);

  Pool<UINT8> buffer;
  UINTN size = 0;
  UINTN calls = 0;
  UINTN capacity = 0;  // bytes of the buffer handed to the last call
  EFI_STATUS status = tvl::rt::callWithSizedBuffer(
      kFirstBufferBytes, buffer, size,
      [&](UINT8* into, UINTN* bytes) {
        capacity = *bytes;
        return HiiStringProtocol->GetString(HiiStringProtocol, Language, HiiHandle, StringId,
                                            reinterpret_cast<CHAR16*>(into), bytes, nullptr);
      },
      &calls);
  if (!buffer) {
    // Only the first allocation is traced; a failed retry allocation just
    // reports the shortage.
    if (calls == 0) tvl::trace(TVL_LEVEL_TOOLBOX, kFunction, u"GetString ERROR: %r\n", EFI_OUT_OF_RESOURCES);
    return EFI_OUT_OF_RESOURCES;
  }
  if (EFI_ERROR(status)) {
    buffer.reset();
    tvl::trace(TVL_LEVEL_TOOLBOX, kFunction, u"HiiStringProtocol->GetString ERROR: %r\n", status);
    return status;
  }

  auto* wide = reinterpret_cast<CHAR16*>(buffer.get());
  UINTN n = boundedLength(wide, capacity);
  if (n == 0) {
    buffer.reset();
    tvl::trace(TVL_LEVEL_TOOLBOX, kFunction, u"GetString zero length String: %r\n", EFI_NOT_FOUND);
    return EFI_NOT_FOUND;
  }
  if (n == capacity / sizeof(CHAR16)) {
    // No terminator inside the buffer: the last character gives way to one.
    wide[--n] = 0;
    if (n == 0) return EFI_NOT_FOUND;
  }

  Pool<CHAR8> narrow = Pool<CHAR8>::zeroed(n + 1);
  if (!narrow) return EFI_OUT_OF_RESOURCES;
  narrowToAscii(wide, narrow.get());
  buffer.reset();
  tvl::trace(TVL_LEVEL_TOOLBOX, kFunction, u"GetString returning status %r\n", status);
  *Text = narrow.release();
  return status;
}

extern "C" EFI_STATUS GetStringBeforeBracket(const CHAR8* Language, EFI_HII_HANDLE HiiHandle,
                                             EFI_STRING_ID StringId, CHAR8** Text) {
  if (Language == nullptr || Text == nullptr) return EFI_INVALID_PARAMETER;
  Pool<CHAR8> whole;
  EFI_STATUS status = GetString(Language, HiiHandle, StringId, whole.receive());
  if (EFI_ERROR(status)) return status;

  UINTN n = 0;
  while (whole[n] != 0 && whole[n] != '[') ++n;
  Pool<CHAR8> name = tvl::rt::duplicate(whole.get(), n);
  if (!name) return EFI_OUT_OF_RESOURCES;
  *Text = name.release();
  return EFI_SUCCESS;
}
