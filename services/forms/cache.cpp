#include "services/forms/cache.h"

#include "services/forms/records.h"

namespace tvl::forms {
namespace {

// Constructing an object in pool memory without the standard library.
struct InPool {};

}  // namespace
}  // namespace tvl::forms

void* operator new(decltype(sizeof(0)), void* where, tvl::forms::InPool) noexcept { return where; }

namespace tvl::forms {
namespace {

// A handful of devices is the usual working set; more parses than this
// push out the oldest that is not lent.
constexpr UINTN kMaxCached = 8;

// Package types whose change makes a parse stale: the forms and the string
// packages that give the form sets their languages. Each type and each
// kind of change is its own registration, as every database supports.
constexpr UINT8 kWatchedPackages[] = {EFI_HII_PACKAGE_FORMS, EFI_HII_PACKAGE_STRINGS};
constexpr EFI_HII_DATABASE_NOTIFY_TYPE kWatchedChanges[] = {
    EFI_HII_DATABASE_NOTIFY_NEW_PACK, EFI_HII_DATABASE_NOTIFY_REMOVE_PACK, EFI_HII_DATABASE_NOTIFY_ADD_PACK};
constexpr UINTN kRegistrations = sizeof(kWatchedPackages) * (sizeof(kWatchedChanges) / sizeof(kWatchedChanges[0]));

ParsedPackageList* gCached[kMaxCached];
EFI_HII_DATABASE_PROTOCOL* gWatched;
EFI_HANDLE gRegistrations[kRegistrations];
// Signalled when an HII database protocol is installed.
EFI_EVENT gDatabaseEvent;
VOID* gDatabaseRegistration;

void destroyParsed(ParsedPackageList* p) {
  if (!p) return;
  p->~ParsedPackageList();
  rt::release(p);
}

void forget(UINTN slot) {
  destroyParsed(gCached[slot]);
  gCached[slot] = nullptr;
}

// The package list of `handle` changed: its parses are stale.
void dropHandle(EFI_HII_HANDLE handle) {
  for (UINTN i = 0; i < kMaxCached; ++i) {
    ParsedPackageList* p = gCached[i];
    if (!p || p->list.hiiHandle != handle) continue;
    if (p->lent)
      p->dropped = true;
    else
      forget(i);
  }
}

EFI_STATUS EFIAPI onPackageChange(UINT8, const EFI_GUID*, const EFI_HII_PACKAGE_HEADER*, EFI_HII_HANDLE handle,
                                  EFI_HII_DATABASE_NOTIFY_TYPE) {
  dropHandle(handle);
  return EFI_SUCCESS;
}

// Forgets the registrations without calling the database they were made
// with, which may be gone.
void forgetRegistrations() {
  for (UINTN i = 0; i < kRegistrations; ++i) gRegistrations[i] = nullptr;
  gWatched = nullptr;
}

void unregisterAll() {
  for (UINTN i = 0; i < kRegistrations; ++i) {
    if (gWatched && gRegistrations[i]) gWatched->UnregisterPackageNotify(gWatched, gRegistrations[i]);
    gRegistrations[i] = nullptr;
  }
  gWatched = nullptr;
}

// Marks every kept parse dropped, freeing those not lent.
void dropAll() {
  for (UINTN i = 0; i < kMaxCached; ++i) {
    if (!gCached[i]) continue;
    if (gCached[i]->lent)
      gCached[i]->dropped = true;
    else
      forget(i);
  }
}

UINTN slotOf(const ParsedPackageList* parsed) {
  for (UINTN i = 0; i < kMaxCached; ++i)
    if (gCached[i] == parsed) return i;
  return kMaxCached;
}

ParsedPackageList* ownerOf(const HII_FORMSET_RECORD* formSet) {
  for (UINTN i = 0; i < kMaxCached; ++i) {
    ParsedPackageList* p = gCached[i];
    if (!p) continue;
    for (UINTN f = 0; f < p->parsed.formSets.size(); ++f)
      if (p->parsed.formSets[f].record == formSet) return p;
  }
  return nullptr;
}

// A database installed (again): HII handles of another instance may have
// the same values, so nothing kept can be trusted; the next call registers
// with whichever database it finds.
void EFIAPI onDatabaseInstalled(EFI_EVENT, VOID*) {
  dropAll();
  forgetRegistrations();
}

}  // namespace

EFI_STATUS watchDatabaseInstalls() {
  EFI_GUID guid = EFI_HII_DATABASE_PROTOCOL_GUID;
  RETURN_IF_ERROR(rt::bs()->CreateEvent(EVT_NOTIFY_SIGNAL, TPL_CALLBACK, onDatabaseInstalled, nullptr,
                                        &gDatabaseEvent));
  EFI_STATUS status = rt::bs()->RegisterProtocolNotify(&guid, gDatabaseEvent, &gDatabaseRegistration);
  if (EFI_ERROR(status)) {
    rt::bs()->CloseEvent(gDatabaseEvent);
    gDatabaseEvent = nullptr;
  }
  return status;
}

ParsedOwner::~ParsedOwner() { destroyParsed(p_); }

bool ParsedOwner::create() {
  destroyParsed(p_);
  p_ = nullptr;
  void* memory = rt::Pool<UINT8>::bytes(sizeof(ParsedPackageList)).release();
  if (!memory) return false;
  p_ = new (memory, InPool{}) ParsedPackageList();
  return true;
}

bool watchDatabase(EFI_HII_DATABASE_PROTOCOL* db) {
  if (db == gWatched) return true;
  // Without word of database installs a kept parse could outlive its database.
  if (!gDatabaseEvent) return false;
  // Another database instance: what was kept came from the old one.
  dropAll();
  forgetRegistrations();
  // A database that cannot tell of changes gets nothing cached.
  if (!db->RegisterPackageNotify || !db->UnregisterPackageNotify) return false;
  UINTN n = 0;
  for (UINT8 type : kWatchedPackages) {
    for (EFI_HII_DATABASE_NOTIFY_TYPE change : kWatchedChanges) {
      EFI_HANDLE registration = nullptr;
      if (db->RegisterPackageNotify(db, type, nullptr, onPackageChange, change, &registration) != EFI_SUCCESS ||
          !registration) {
        gWatched = db;
        unregisterAll();
        return false;
      }
      gRegistrations[n++] = registration;
    }
  }
  gWatched = db;
  return true;
}

ParsedPackageList* takeParsed(EFI_HII_HANDLE handle, const PackageList& driver) {
  for (UINTN i = 0; i < kMaxCached; ++i) {
    ParsedPackageList* p = gCached[i];
    if (!p || p->lent || p->dropped || p->list.hiiHandle != handle) continue;
    if (p->list.driverHandle != driver.driverHandle || p->list.devicePath != driver.devicePath ||
        p->list.devicePathSize != driver.devicePathSize || p->list.configAccess != driver.configAccess) {
      forget(i);  // the device behind the package list changed: its headers are stale
      return nullptr;
    }
    p->lent = true;
    return p;
  }
  return nullptr;
}

bool cacheParsed(ParsedPackageList* parsed) {
  if (!gWatched) return false;
  UINTN slot = slotOf(nullptr);
  for (UINTN i = 0; slot == kMaxCached && i < kMaxCached; ++i) {
    if (gCached[i]->lent) continue;
    forget(i);
    slot = i;
  }
  if (slot == kMaxCached) return false;
  parsed->cached = true;
  parsed->lent = true;
  gCached[slot] = parsed;
  return true;
}

void giveBack(ParsedPackageList* parsed) {
  parsed->lent = false;
  if (parsed->dropped) {
    UINTN slot = slotOf(parsed);
    if (slot < kMaxCached) forget(slot);
  }
}

void releaseFormSets(HII_FORMSET_RECORD** formSets, UINTN count) {
  if (!formSets) return;
  // First every loan ends, then the dropped parses go: the form sets of
  // one parse may stand anywhere in the array.
  bool anyCached = false;
  for (UINTN i = 0; i < count; ++i) {
    ParsedPackageList* owner = ownerOf(formSets[i]);
    if (owner) {
      owner->lent = false;
      anyCached = true;
    } else {
      destroyFormSet(formSets[i]);
    }
  }
  rt::release(formSets);
  if (!anyCached) return;
  for (UINTN i = 0; i < kMaxCached; ++i)
    if (gCached[i] && gCached[i]->dropped && !gCached[i]->lent) forget(i);
}

void releaseParsedPackageLists() { dropAll(); }

bool anyLent() {
  for (UINTN i = 0; i < kMaxCached; ++i)
    if (gCached[i] && gCached[i]->lent) return true;
  return false;
}

EFI_STATUS closeCache() {
  if (anyLent()) return EFI_ACCESS_DENIED;
  dropAll();
  unregisterAll();
  if (gDatabaseEvent) rt::bs()->CloseEvent(gDatabaseEvent);
  gDatabaseEvent = nullptr;
  return EFI_SUCCESS;
}

}  // namespace tvl::forms
