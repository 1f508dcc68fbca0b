// Parsed package lists kept between calls. Parsing the IFR of a large
// device is most of the cost of ProcessForms, and the save path asks for
// the same device's forms once per configuration string; so the parse of a
// package list is kept per HII handle and reused until the HII database
// reports that the package list changed (a new, removed or added package of
// forms or strings for that handle). Export notifications do not count: our
// own ExportPackageLists calls fire them. Values, conditions and default
// expressions are never kept: every call reads and evaluates them again.
//
// A kept parse whose form sets a caller holds is lent: no other call
// reuses it (that call parses afresh) and a change of its package list only
// marks it, so it is freed when the caller gives the form sets back.
//
// Memory: everything kept is freed by releaseParsedPackageLists (exported
// to the emulated platform's tests as FormsProcessorReleaseCache, which
// their leak checks and allocation-failure sweeps call before they count
// the pool: a kept parse is then never mistaken for a leak, and every run
// of a sweep starts without one, so the allocations that fill the cache are
// swept too) and when the service unloads.
#pragma once

#include "services/forms/evaluate.h"

namespace tvl::forms {

struct ParsedPackageList {
  rt::Pool<UINT8> bytes;  // the exported package list; `list` and the expressions point into it
  PackageList list;
  ParsedForms parsed;
  Vector<const CHAR8*> languages;
  QuestionIndex questions;
  bool cached = false;   // held by the cache
  bool lent = false;     // in use by a call or held by a caller
  bool dropped = false;  // its package list changed: freed when given back
};

// Owner of a parse that is not (or not yet) cached.
class ParsedOwner {
 public:
  ParsedOwner() = default;
  ParsedOwner(const ParsedOwner&) = delete;
  ParsedOwner& operator=(const ParsedOwner&) = delete;
  ~ParsedOwner();
  // Makes an empty parse; false when there is no memory.
  bool create();
  ParsedPackageList* get() const { return p_; }
  ParsedPackageList* operator->() const { return p_; }
  ParsedPackageList* release() {
    ParsedPackageList* p = p_;
    p_ = nullptr;
    return p;
  }

 private:
  ParsedPackageList* p_ = nullptr;
};

// At load: follows installs of the HII database protocol, after which
// nothing kept is used. Without it nothing is cached.
EFI_STATUS watchDatabaseInstalls();

// Registers for the database's package notifications once per database
// instance (the service may load before the database). False when they
// cannot be registered: nothing is cached then.
bool watchDatabase(EFI_HII_DATABASE_PROTOCOL* db);

// The kept parse of `handle` whose driver, device path and configuration
// access are still those of `driver`, now lent; or null.
ParsedPackageList* takeParsed(EFI_HII_HANDLE handle, const PackageList& driver);

// Hands a fresh parse to the cache, lent to the running call; false when
// the cache cannot take it (the caller keeps it).
bool cacheParsed(ParsedPackageList* parsed);

// Ends the loan of a cached parse; a dropped one is freed.
void giveBack(ParsedPackageList* parsed);

// Frees `count` form sets and their array; those of a cached parse are
// given back instead.
void releaseFormSets(HII_FORMSET_RECORD** formSets, UINTN count);

// Frees every kept parse that is not lent (the lent ones when given back).
void releaseParsedPackageLists();

// For Unload: EFI_ACCESS_DENIED while a caller holds form sets of a kept
// parse; otherwise stops the notifications and frees everything kept.
EFI_STATUS closeCache();
bool anyLent();

}  // namespace tvl::forms
