// Events and task priority levels. Everything is synchronous: a notify
// function runs as soon as it is signalled if its TPL is above the current
// one, otherwise it waits in the queue until RestoreTPL drops below it.
#include <algorithm>

#include "host/platform_internal.h"

namespace tvl::host {

namespace {

constexpr size_t kRetiredKept = 4096;

bool validEventType(uint32_t type) {
  switch (type) {
    case 0:
    case EVT_TIMER:
    case EVT_NOTIFY_WAIT:
    case EVT_NOTIFY_SIGNAL:
    case EVT_TIMER | EVT_NOTIFY_WAIT:
    case EVT_TIMER | EVT_NOTIFY_SIGNAL:
    case EVT_SIGNAL_EXIT_BOOT_SERVICES:
    case EVT_SIGNAL_VIRTUAL_ADDRESS_CHANGE:
      return true;
    default:
      return false;
  }
}

// The event groups that the two special event types belong to.
const EFI_GUID kExitBootServicesGroup = {
    0x27abf055, 0xb1b8, 0x4c26, {0x80, 0x48, 0x74, 0x8f, 0x37, 0xba, 0xa2, 0xdf}};
const EFI_GUID kVirtualAddressChangeGroup = {
    0x13fa7698, 0xc831, 0x49c7, {0x87, 0xea, 0x8f, 0x43, 0xfc, 0xc2, 0x51, 0x96}};

EFI_TPL EFIAPI raiseTpl(EFI_TPL newTpl) {
  Platform::Impl& p = activeImpl();
  EFI_TPL old = p.tpl;
  if (newTpl < old || newTpl > TPL_HIGH_LEVEL) {
    p.tplViolations++;
    return old;
  }
  p.tpl = newTpl;
  return old;
}

VOID EFIAPI restoreTpl(EFI_TPL oldTpl) {
  Platform::Impl& p = activeImpl();
  if (oldTpl > p.tpl) {
    p.tplViolations++;
    return;
  }
  p.dispatch(oldTpl);
}

EFI_STATUS EFIAPI createEvent(UINT32 type, EFI_TPL tpl, EFI_EVENT_NOTIFY fn, VOID* ctx, EFI_EVENT* event) {
  return activeImpl().createEvent(type, tpl, fn, ctx, nullptr, event);
}

EFI_STATUS EFIAPI createEventEx(UINT32 type, EFI_TPL tpl, EFI_EVENT_NOTIFY fn, const VOID* ctx,
                                const EFI_GUID* group, EFI_EVENT* event) {
  return activeImpl().createEvent(type, tpl, fn, const_cast<VOID*>(ctx), group, event);
}

EFI_STATUS EFIAPI signalEvent(EFI_EVENT event) {
  Platform::Impl& p = activeImpl();
  Event* e = p.findEvent(event);
  if (!e) return EFI_INVALID_PARAMETER;
  return p.signal(e);
}

EFI_STATUS EFIAPI closeEvent(EFI_EVENT event) {
  Platform::Impl& p = activeImpl();
  Event* e = p.findEvent(event);
  if (!e) return EFI_INVALID_PARAMETER;
  p.closeEvent(e);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI checkEvent(EFI_EVENT event) {
  Platform::Impl& p = activeImpl();
  Event* e = p.findEvent(event);
  if (!e || (e->type & EVT_NOTIFY_SIGNAL)) return EFI_INVALID_PARAMETER;
  if (!e->signaled && (e->type & EVT_NOTIFY_WAIT)) {
    // A wait event's notify function is how it gets signalled.
    p.queueNotify(e);
    p.dispatch(p.tpl);
    e = p.findEvent(event);  // the notify function may have closed it
    if (!e) return EFI_NOT_READY;
  }
  if (!e->signaled) return EFI_NOT_READY;
  e->signaled = false;
  return EFI_SUCCESS;
}

// Nothing in the emulation signals events asynchronously, so waiting
// cannot end in a later signal: each event is checked once (running wait
// notifies), and when none is signalled the answer is EFI_NOT_READY
// instead of blocking forever.
EFI_STATUS EFIAPI waitForEvent(UINTN count, EFI_EVENT* events, UINTN* index) {
  Platform::Impl& p = activeImpl();
  if (count == 0 || !events || !index) return EFI_INVALID_PARAMETER;
  if (p.tpl != TPL_APPLICATION) return EFI_UNSUPPORTED;
  for (UINTN i = 0; i < count; ++i) {
    EFI_STATUS status = checkEvent(events[i]);
    if (status != EFI_NOT_READY) {
      *index = i;
      return status;
    }
  }
  return EFI_NOT_READY;
}

}  // namespace

Event* Platform::Impl::findEvent(EFI_EVENT e) const {
  if (!e) return nullptr;
  auto it = events.find(e);
  return it == events.end() ? nullptr : it->second.get();
}

EFI_STATUS Platform::Impl::createEvent(uint32_t type, EFI_TPL notifyTpl, EFI_EVENT_NOTIFY fn, void* ctx,
                                       const EFI_GUID* group, EFI_EVENT* out) {
  if (!out || !validEventType(type)) return EFI_INVALID_PARAMETER;
  bool special = type == EVT_SIGNAL_EXIT_BOOT_SERVICES || type == EVT_SIGNAL_VIRTUAL_ADDRESS_CHANGE;
  if (special && group) return EFI_INVALID_PARAMETER;
  if (type & (EVT_NOTIFY_WAIT | EVT_NOTIFY_SIGNAL)) {
    if (!fn || notifyTpl <= TPL_APPLICATION || notifyTpl >= TPL_HIGH_LEVEL) return EFI_INVALID_PARAMETER;
  }
  if (!consumeAttempt()) return EFI_OUT_OF_RESOURCES;
  auto e = std::make_unique<Event>();
  e->serial = nextSerial++;
  e->type = type;
  e->tpl = notifyTpl;
  e->notify = (type & (EVT_NOTIFY_WAIT | EVT_NOTIFY_SIGNAL)) ? fn : nullptr;
  e->context = ctx;
  e->owner = running.empty() ? nullptr : running.back();
  if (type == EVT_SIGNAL_EXIT_BOOT_SERVICES) group = &kExitBootServicesGroup;
  if (type == EVT_SIGNAL_VIRTUAL_ADDRESS_CHANGE) group = &kVirtualAddressChangeGroup;
  if (group) {
    e->hasGroup = true;
    e->group = *group;
  }
  *out = e.get();
  events.emplace(e.get(), std::move(e));
  return EFI_SUCCESS;
}

void Platform::Impl::queueNotify(Event* e) {
  if (e->queued || !e->notify) return;
  e->queued = true;
  queue.push_back(e);
}

EFI_STATUS Platform::Impl::signal(Event* e) {
  if (!e->signaled) {
    if ((e->type & EVT_NOTIFY_SIGNAL) && e->hasGroup) {
      // Signalling one member of a group signals every member, in creation order.
      std::vector<Event*> members;
      for (const auto& [key, other] : events)
        if (other->hasGroup && other->group == e->group && (other->type & EVT_NOTIFY_SIGNAL))
          members.push_back(other.get());
      std::sort(members.begin(), members.end(), [](Event* a, Event* b) { return a->serial < b->serial; });
      for (Event* m : members) {
        m->signaled = true;
        queueNotify(m);
      }
    } else {
      e->signaled = true;
      if (e->type & EVT_NOTIFY_SIGNAL) queueNotify(e);
    }
  }
  dispatch(tpl);
  return EFI_SUCCESS;
}

void Platform::Impl::dispatch(EFI_TPL level) {
  for (;;) {
    auto best = queue.end();
    for (auto it = queue.begin(); it != queue.end(); ++it)
      if ((*it)->tpl > level && (best == queue.end() || (*it)->tpl > (*best)->tpl)) best = it;
    if (best == queue.end()) break;
    Event* e = *best;
    queue.erase(best);
    e->queued = false;
    if (e->type & EVT_NOTIFY_SIGNAL) e->signaled = false;
    tpl = e->tpl;
    EFI_EVENT_NOTIFY fn = e->notify;
    void* ctx = e->context;
    RunningImage guard(*this, e->owner);
    fn(e, ctx);
  }
  tpl = level;
}

void Platform::Impl::closeEvent(Event* e) {
  queue.erase(std::remove(queue.begin(), queue.end(), e), queue.end());
  for (auto it = registrations.begin(); it != registrations.end();) {
    Registration* r = it->second.get();
    if (r->event != e) {
      ++it;
      continue;
    }
    auto& list = r->protocol->notifies;
    list.erase(std::remove(list.begin(), list.end(), r), list.end());
    it = registrations.erase(it);
  }
  auto it = events.find(e);
  retiredEvents.push_back(std::move(it->second));
  events.erase(it);
  if (retiredEvents.size() > kRetiredKept) retiredEvents.pop_front();
}

void fillEventServices(EFI_BOOT_SERVICES& bs) {
  bs.RaiseTPL = raiseTpl;
  bs.RestoreTPL = restoreTpl;
  bs.CreateEvent = createEvent;
  bs.CreateEventEx = createEventEx;
  bs.SignalEvent = signalEvent;
  bs.CloseEvent = closeEvent;
  bs.CheckEvent = checkEvent;
  bs.WaitForEvent = waitForEvent;
}

EFI_TPL Platform::currentTpl() const { return impl_->tpl; }
size_t Platform::tplViolations() const { return impl_->tplViolations; }
size_t Platform::openEvents() const { return impl_->events.size(); }

}  // namespace tvl::host
