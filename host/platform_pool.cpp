// Pool and page memory: the checked pool (a record, fill patterns and guard
// bytes per allocation), the lean pool's entry points, page runs, and the
// deterministic fault injection that all of them share.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "host/platform_internal.h"

namespace tvl::host {

namespace {

// Fresh allocations are filled with this byte so that callers who forget to
// zero what they use see garbage; freed memory gets the other one before it
// goes back to the host, to flush use-after-free.
constexpr uint8_t kFreshFill = 0xAF;
constexpr uint8_t kFreedFill = 0xDF;
constexpr uint8_t kGuardFill = 0xE7;
constexpr size_t kGuardBytes = 16;
constexpr size_t kPageSize = 4096;

bool validMemoryType(uint32_t type) {
  if (type >= 0x70000000u) return true;  // OEM and OS-loader reserved ranges
  if (type >= EfiMaxMemoryType) return false;
  return type != EfiConventionalMemory && type != EfiPersistentMemory;
}

bool guardIntact(const uint8_t* base, size_t size) {
  for (size_t i = 0; i < kGuardBytes; ++i)
    if (base[size + i] != kGuardFill) return false;
  return true;
}

// EFIAPI: see Platform::Impl::injectedFault.
void EFIAPI refusedFree(Platform::Impl& p, VOID* buffer) {
  p.stats.invalidFrees++;
  std::ostringstream line;
  line << "FreePool(" << buffer << ") by " << p.currentOwner() << ": not an outstanding pool allocation";
  p.poolErrors.push_back(line.str());
}

EFI_STATUS EFIAPI allocatePool(EFI_MEMORY_TYPE type, UINTN size, VOID** buffer) {
  if (!buffer || !validMemoryType(type)) return EFI_INVALID_PARAMETER;
  Platform::Impl& p = activeImpl();
  *buffer = nullptr;
  if (!p.consumeAttempt()) return EFI_OUT_OF_RESOURCES;
  if (size > (size_t(1) << 40)) return EFI_OUT_OF_RESOURCES;
  auto* base = static_cast<uint8_t*>(std::malloc(size + kGuardBytes));
  if (!base) return EFI_OUT_OF_RESOURCES;
  std::memset(base, kFreshFill, size);
  std::memset(base + size, kGuardFill, kGuardBytes);
  Allocation a;
  a.sequence = p.nextSequence++;
  a.size = size;
  a.type = type;
  a.owner = p.currentOwner();
  p.allocations.emplace(base, std::move(a));
  p.stats.allocations++;
  p.stats.outstanding++;
  p.stats.outstandingBytes += size;
  *buffer = base;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI freePool(VOID* buffer) {
  Platform::Impl& p = activeImpl();
  auto it = buffer ? p.allocations.find(buffer) : p.allocations.end();
  if (it == p.allocations.end()) {
    refusedFree(p, buffer);
    return EFI_INVALID_PARAMETER;
  }
  auto* base = static_cast<uint8_t*>(buffer);
  const Allocation& a = it->second;
  if (!guardIntact(base, a.size)) {
    p.stats.overruns++;
    std::ostringstream line;
    line << "allocation #" << a.sequence << " (" << a.size << " bytes, " << a.owner
         << ") was written past its end; found when " << p.currentOwner() << " freed it";
    p.poolErrors.push_back(line.str());
  }
  if (p.freeObserver) p.freeObserver(base, a.size);
  std::memset(base, kFreedFill, a.size + kGuardBytes);
  p.stats.frees++;
  p.stats.outstanding--;
  p.stats.outstandingBytes -= a.size;
  p.allocations.erase(it);
  std::free(base);
  return EFI_SUCCESS;
}

// The lean pool keeps the counts and nothing else: no owner, no fill
// pattern, no guard bytes.
EFI_STATUS EFIAPI allocateLeanPool(EFI_MEMORY_TYPE type, UINTN size, VOID** buffer) {
  if (!buffer || !validMemoryType(type)) return EFI_INVALID_PARAMETER;
  Platform::Impl& p = activeImpl();
  *buffer = nullptr;
  if (!p.consumeAttempt()) return EFI_OUT_OF_RESOURCES;
  if (size > (size_t(1) << 40) || !p.lean) return EFI_OUT_OF_RESOURCES;
  void* block = p.lean->allocate(size);
  if (!block) return EFI_OUT_OF_RESOURCES;
  p.nextSequence++;
  p.stats.allocations++;
  p.stats.outstanding++;
  p.stats.outstandingBytes += LeanPool::countedBytes(size);
  *buffer = block;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI freeLeanPool(VOID* buffer) {
  Platform::Impl& p = activeImpl();
  size_t size = 0;
  if (!buffer || !p.lean || !p.lean->release(buffer, &size)) {
    refusedFree(p, buffer);
    return EFI_INVALID_PARAMETER;
  }
  p.stats.frees++;
  p.stats.outstanding--;
  p.stats.outstandingBytes -= size;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI allocatePages(EFI_ALLOCATE_TYPE type, EFI_MEMORY_TYPE memoryType, UINTN pages,
                                EFI_PHYSICAL_ADDRESS* memory) {
  if (!memory || type >= MaxAllocateType || !validMemoryType(memoryType)) return EFI_INVALID_PARAMETER;
  if (pages == 0) return EFI_INVALID_PARAMETER;
  if (type == AllocateAddress) return EFI_NOT_FOUND;  // host memory cannot be placed at a chosen address
  Platform::Impl& p = activeImpl();
  if (!p.consumeAttempt()) return EFI_OUT_OF_RESOURCES;
  if (pages > (size_t(1) << 28)) return EFI_OUT_OF_RESOURCES;
  void* run = std::aligned_alloc(kPageSize, pages * kPageSize);
  if (!run) return EFI_OUT_OF_RESOURCES;
  auto address = reinterpret_cast<uintptr_t>(run);
  if (type == AllocateMaxAddress && address + pages * kPageSize - 1 > *memory) {
    std::free(run);
    return EFI_NOT_FOUND;
  }
  std::memset(run, kFreshFill, pages * kPageSize);
  PageRun r;
  r.sequence = p.nextSequence++;
  r.pages = pages;
  r.owner = p.currentOwner();
  p.pageRuns.emplace(address, std::move(r));
  p.stats.outstandingPages += pages;
  *memory = address;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI freePages(EFI_PHYSICAL_ADDRESS memory, UINTN pages) {
  Platform::Impl& p = activeImpl();
  if (memory % kPageSize != 0) return EFI_INVALID_PARAMETER;
  auto it = p.pageRuns.find(static_cast<uintptr_t>(memory));
  if (it == p.pageRuns.end() || it->second.pages != pages) {
    p.stats.invalidFrees++;
    std::ostringstream line;
    line << "FreePages(0x" << std::hex << memory << std::dec << ", " << pages << ") by " << p.currentOwner()
         << ": not an outstanding page run of that size";
    p.poolErrors.push_back(line.str());
    return EFI_NOT_FOUND;
  }
  void* run = reinterpret_cast<void*>(it->first);
  if (p.freeObserver) p.freeObserver(run, pages * kPageSize);
  std::memset(run, kFreedFill, pages * kPageSize);
  p.stats.outstandingPages -= pages;
  p.pageRuns.erase(it);
  std::free(run);
  return EFI_SUCCESS;
}

}  // namespace

bool EFIAPI Platform::Impl::injectedFault(Impl& p) {
  bool fail = p.failAt.erase(p.attempts) != 0;
  if (p.failFrom != 0 && p.attempts >= p.failFrom) fail = true;
  if (fail) p.stats.failedByInjection++;
  return fail;
}

void fillPoolServices(EFI_BOOT_SERVICES& bs, PoolMode mode) {
  bs.AllocatePool = mode == PoolMode::Lean ? allocateLeanPool : allocatePool;
  bs.FreePool = mode == PoolMode::Lean ? freeLeanPool : freePool;
  bs.AllocatePages = allocatePages;
  bs.FreePages = freePages;
}

PoolMode Platform::poolMode() const { return impl_->poolMode; }

PoolStats Platform::poolStats() const { return impl_->stats; }

std::vector<AllocationInfo> Platform::outstandingAllocations() const {
  std::vector<AllocationInfo> out;
  for (const auto& [address, a] : impl_->allocations)
    out.push_back(AllocationInfo{a.sequence, a.size, a.owner, address});
  for (const auto& [address, r] : impl_->pageRuns)
    out.push_back(AllocationInfo{r.sequence, r.pages * kPageSize, r.owner, reinterpret_cast<void*>(address)});
  std::sort(out.begin(), out.end(),
            [](const AllocationInfo& a, const AllocationInfo& b) { return a.sequence < b.sequence; });
  return out;
}

uint64_t Platform::nextAllocationSequence() const { return impl_->nextSequence; }

std::string Platform::leakReport() const { return leakReport(0); }

std::string Platform::leakReport(uint64_t sinceSequence) const {
  std::ostringstream out;
  const PoolStats& stats = impl_->stats;
  if (impl_->poolMode == PoolMode::Lean && stats.outstanding != 0)
    out << "  " << stats.outstanding << " pool allocation(s), " << stats.outstandingBytes
        << " bytes in the pool's block sizes (the lean pool keeps no record of each)\n";
  for (const AllocationInfo& a : outstandingAllocations()) {
    if (a.sequence < sinceSequence) continue;
    bool pages = impl_->pageRuns.count(reinterpret_cast<uintptr_t>(a.address)) != 0;
    out << "  #" << a.sequence << ": " << a.size << " bytes" << (pages ? " (pages)" : "") << " allocated by "
        << a.owner << " at " << a.address << "\n";
  }
  return out.str();
}

std::string Platform::poolErrorReport() const {
  std::string out;
  for (const std::string& line : impl_->poolErrors) out += "  " + line + "\n";
  return out;
}

size_t Platform::allocationAttempts() const { return impl_->attempts; }

void Platform::failAllocation(size_t k) {
  if (k != 0) impl_->failAt.insert(impl_->attempts + k);
}

void Platform::failAllocationsFrom(size_t k) {
  if (k != 0) impl_->failFrom = impl_->attempts + k;
}

void Platform::setFreeObserver(FreeObserver observer) { impl_->freeObserver = std::move(observer); }

void Platform::clearAllocationFaults() {
  impl_->failAt.clear();
  impl_->failFrom = 0;
}

}  // namespace tvl::host
