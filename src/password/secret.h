// Pool buffers for password material: zero-filled when allocated and wiped
// again before they go back to the pool, on every path, so that a freed
// block never shows a password to whoever gets that memory next.
#pragma once

#include "uefi/runtime.h"

namespace tvl::password {

// Overwrites `size` bytes with zeros; the stores are volatile and followed
// by a compiler barrier, so they stay even when the memory is freed next.
inline void wipe(VOID* buffer, UINTN size) {
  if (!buffer) return;
  volatile UINT8* bytes = static_cast<volatile UINT8*>(buffer);
  for (UINTN i = 0; i < size; ++i) bytes[i] = 0;
  __asm__ __volatile__("" : : "r"(buffer) : "memory");
}

// Move-only owner of `count` zero-filled elements that wipes them before
// releasing them.
template <typename T>
class SecretPool {
 public:
  SecretPool() = default;
  ~SecretPool() { reset(); }
  SecretPool(const SecretPool&) = delete;
  SecretPool& operator=(const SecretPool&) = delete;
  SecretPool(SecretPool&& other) : pool_(static_cast<tvl::rt::Pool<T>&&>(other.pool_)), count_(other.count_) {
    other.count_ = 0;
  }
  SecretPool& operator=(SecretPool&& other) {
    if (this != &other) {
      reset();
      pool_ = static_cast<tvl::rt::Pool<T>&&>(other.pool_);
      count_ = other.count_;
      other.count_ = 0;
    }
    return *this;
  }

  // Empty when the pool refuses.
  static SecretPool zeroed(UINTN count) {
    SecretPool secret;
    secret.pool_ = tvl::rt::Pool<T>::zeroed(count);
    if (secret.pool_) secret.count_ = count;
    return secret;
  }

  T* get() const { return pool_.get(); }
  T& operator[](UINTN i) const { return pool_[i]; }
  explicit operator bool() const { return static_cast<bool>(pool_); }

  void reset() {
    wipe(pool_.get(), count_ * sizeof(T));
    count_ = 0;
    pool_.reset();
  }

 private:
  tvl::rt::Pool<T> pool_;
  UINTN count_ = 0;
};

}  // namespace tvl::password
