#include "fuzz/support.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/sample/sample_devices.h"

namespace tvl::fuzz {

namespace {

// Traces are formatted as in firmware and then dropped: the console would
// keep every line of every input.
VOID EFIAPI dropLine(VOID*, UINTN, const CHAR8*, const CHAR16*) {}

}  // namespace

void fail(const std::string& message) {
  std::fprintf(stderr, "==fuzz== %s\n", message.c_str());
  std::fflush(stderr);
  std::abort();
}

Session& session(const std::function<void(host::Platform&)>& beforeSample) {
  static Session* s = nullptr;
  if (s) return *s;
  s = new Session;
  s->platform = std::make_unique<host::Platform>(host::PoolMode::Checked);
  if (beforeSample) beforeSample(*s->platform);
  s->sample = std::make_unique<host::sample::SamplePlatform>(*s->platform);
  DEBUG_LOG_PROTOCOL* log = s->sample->log();
  if (!log || log->RegisterSink(log, dropLine, nullptr) != EFI_SUCCESS) fail("cannot silence the log service");
  if (s->sample->loadDriver(&s->driverImage) != EFI_SUCCESS) fail("the driver's entry failed");
  s->converter = static_cast<TOLVANE_PROTOCOL*>(s->platform->locateProtocol(gTolvaneProtocolGuid));
  s->xml = s->sample->xml();
  if (!s->converter || !s->xml) fail("no converter protocol or XML service");
  s->baseline = host::sample::captureState(*s->sample);
  s->platform->clearConsole();
  return *s;
}

void* Session::driverSymbol(const char* name) const {
  void* symbol = platform->imageSymbol(driverImage, name);
  if (!symbol) fail(std::string("the driver exports no ") + name);
  return symbol;
}

host::sample::SampleDevice& Session::bios() const {
  host::sample::SampleDevice* device = sample->findDevice(host::sample::kBiosFqdd);
  if (!device) fail("no BIOS device");
  return *device;
}

void Session::reset() {
  if (host::sample::captureState(*sample) != baseline) host::sample::restoreState(*sample, baseline);
  for (auto& device : sample->devices()) device.device->clearCalls();
  sample->hii().clearGetStringCalls();
  platform->clearConsole();
}

PoolWatch::PoolWatch(host::Platform& platform)
    : platform_(platform),
      sequence_(platform.nextAllocationSequence()),
      invalidFrees_(platform.poolStats().invalidFrees),
      overruns_(platform.poolStats().overruns) {}

void PoolWatch::check(const char* what) const {
  // The forms service keeps parses between calls; what it keeps is not a
  // leak of the input's, so it is let go before the count.
  using Release = EFI_STATUS(EFIAPI*)();
  for (EFI_HANDLE image : platform_.handlesWith(gEfiLoadedImageProtocolGuid))
    if (auto release = platform_.imageFunction<Release>(image, "FormsProcessorReleaseCache")) release();
  std::string leaks = platform_.leakReport(sequence_);
  if (!leaks.empty()) fail(std::string(what) + " leaks pool memory:\n" + leaks);
  host::PoolStats stats = platform_.poolStats();
  if (stats.invalidFrees != invalidFrees_ || stats.overruns != overruns_)
    fail(std::string(what) + " frees memory it does not own or writes past an allocation:\n" +
         platform_.poolErrorReport());
}

XML_NODE* parse(const Session& s, const std::string& text) {
  XML_NODE* root = nullptr;
  XML_PARSE_ERROR error{};
  if (s.xml->XML_ParseText(s.xml, reinterpret_cast<const CHAR8*>(text.data()), text.size(), &root, &error) !=
      EFI_SUCCESS)
    return nullptr;
  return root;
}

void freeTree(const Session& s, XML_NODE* root) {
  if (root) s.xml->XML_FreeNode(s.xml, root);
}

namespace {

void* poolCopy(const void* bytes, size_t size) {
  VOID* buffer = nullptr;
  if (host::currentPlatform()->bootServices()->AllocatePool(EfiBootServicesData, size, &buffer) != EFI_SUCCESS)
    fail("the pool refuses a copy of the input");
  std::memcpy(buffer, bytes, size);
  return buffer;
}

}  // namespace

CHAR8* poolText(const std::string& text) { return static_cast<CHAR8*>(poolCopy(text.c_str(), text.size() + 1)); }

CHAR16* poolText16(const std::u16string& text) {
  return static_cast<CHAR16*>(poolCopy(text.c_str(), (text.size() + 1) * sizeof(CHAR16)));
}

void freePool(void* buffer) {
  if (buffer) host::currentPlatform()->bootServices()->FreePool(buffer);
}

}  // namespace tvl::fuzz
