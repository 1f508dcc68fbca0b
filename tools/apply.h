// One application of a pending document to one device, as `tolvane apply`
// and `tolvane set` run it: the converter's operations called one after
// another on the same pending tree and the same ConfigResults document,
// then a table of every item's outcome.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "host/sample/sample_platform.h"

namespace tvl::cli {

struct ApplySettings {
  bool dryRun = false;      // NodeToHii only: nothing is written
  std::string resultsFile;  // -o: the ConfigResults document
  std::string requestFile;  // --request-out: NodeToHii's request as UTF-8
  bool tracing = false;
  UINTN mask = 0;
};

class ApplyJob {
 public:
  // `services` gives the XML service and the pool; `driverImage` is the
  // converter's image (its error message table is read from it); `device`
  // the driver handle of the device; `pending` stays the caller's.
  ApplyJob(host::sample::SamplePlatform& services, TOLVANE_PROTOCOL* converter, EFI_HANDLE driverImage,
           EFI_HANDLE device, XML_NODE* pending);
  ~ApplyJob();
  ApplyJob(const ApplyJob&) = delete;
  ApplyJob& operator=(const ApplyJob&) = delete;

  // The whole job: the steps in order, the table and the summary on `out`,
  // the files the settings name, each failed operation with its status on
  // standard error as "tolvane COMMAND: OPERATION failed: STATUS". Returns
  // 0 when every item succeeded and every operation returned EFI_SUCCESS
  // (also when nothing was numbered), else 3.
  int run(const ApplySettings& settings, const std::string& command, std::ostream& out);

  // ---- the steps
  // SetBIOSPassword: the password items of a BIOS document, applied before
  // the import into the same results. Only made when one of them is
  // pending, so that documents without passwords need no password service.
  void setPasswords();
  // NodeToHii: checks the numbered items, records each in the results and
  // builds the request.
  void importValues();
  // Whether the request may go to NodeSaveToHii: there is one and the
  // import judged every item.
  bool saveable() const;
  // NodeSaveToHii with the request (never null).
  void saveValues();

  std::string requestText() const;
  // The ConfigResults document; an empty one when nothing was recorded.
  std::string resultsDocument();

 private:
  struct Call {
    const char* operation;
    EFI_STATUS status;
  };

  host::sample::SamplePlatform& services_;
  TOLVANE_PROTOCOL* converter_;
  EFI_HANDLE driverImage_;
  EFI_HANDLE device_;
  XML_NODE* pending_;
  XML_NODE* results_ = nullptr;
  CHAR16* request_ = nullptr;
  std::vector<Call> calls_;  // every operation called, in order
};

}  // namespace tvl::cli
