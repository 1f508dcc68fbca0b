#include "export/mapping.h"

#include "driver/trace.h"
#include "uefi/runtime.h"

namespace {

// One known vendor name of a NIC setting and the common name it is exported
// under.
struct ATTRIBUTE_NAME_MAP_ROW {
  const CHAR8* Name;        // common name, written as "Name"
  const CHAR8* VendorName;  // name an adapter publishes, looked up
};

// Rows in lookup order, ended by a row without a common name. Two vendor
// spellings may share a common name; no vendor name occurs twice.
constexpr ATTRIBUTE_NAME_MAP_ROW AttributeNameMap[] = {
    {"DhcpVendId", "DhcpVndorID"},
    {"DhcpVendId", "DhcpVndorId"},
    {"FirstHddTarget", "TgtAsFirstHDD"},
    {"IscsiTgtBoot", "BootToTarget"},
    {"LnkSpeed", "NICConfigLnkSpeed"},
    {"WinHbaBootMode", "WindowsHBABootMode"},
    {"iScsiOffloadMode", "IscsiOffloadMode"},
    {"LnkUpDelayTime", "LinkUpDelayTime"},
    {"FCoELnkUpDelayTime", "FcoeLinkUpDelayTime"},
    {"FCoELunBusyRetryCnt", "FcoeLunBusyRetryCnt"},
    {"FCoEFabricDiscoveryRetryCnt", "FcoeFabricDiscoveryRetryCnt"},
    {"FirstFCoEBootTargetLUN", "FirstFCoEBootTarget"},
    {"SecondFCoEBootTargetLUN", "SecondFCoEBootTarget"},
    {"FCoETgtBoot", "FcoeBootToTarget"},
    {"FCoEFirstHddTarget", "FcoeTgtAsFirstHDD"},
    {"FCoEHbaMode", "FcoeHbaMode"},
    {"FCoEBootSupport", "FcoeBootSupport"},
    {"BootOptionROM", "OptionROM"},
    {"IscsiInitiatorChapId", "IscsiInitiatorChapIdLegacy"},
    {"FirstTgtChapId", "FirstTgtChapIdLegacy"},
    {"SecondTgtChapId", "SecondTgtChapIdLegacy"},
    {nullptr, nullptr},
};
static_assert(sizeof(AttributeNameMap) / sizeof(AttributeNameMap[0]) == 22, "21 rows and the end row");

}  // namespace

extern "C" VOID getMappedName(const CHAR8* VendorName, const CHAR8** MappedName) {
  if (!VendorName || !MappedName) return;
  for (const ATTRIBUTE_NAME_MAP_ROW* row = AttributeNameMap; row->Name; ++row) {
    if (!tvl::rt::equal(VendorName, row->VendorName)) continue;
    tvl::trace(TVL_LEVEL_FAILURE, "getMappedName", u"VendorName = %a MappedStrName = %a\n", VendorName, row->Name);
    *MappedName = row->Name;
    return;
  }
}
