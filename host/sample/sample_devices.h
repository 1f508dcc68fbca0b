// The devices of the built-in sample platform, each a data description
// (form_description.h): the BIOS internal setup and an integrated NIC partition.
// Further devices are added by writing another description and listing it
// in sampleDevices().
#pragma once

#include <vector>

#include "host/sample/form_description.h"

namespace tvl::host::sample {

// Question ids of the BIOS setup that conditions and tests refer to.
namespace bios {
enum : UINT16 {
  kBootMode = 0x1001,
  kBootSeqRetry,
  kLegacyOptionRom,
  kBootSeq,
  kBootSettingsRef,
  kBootSeqEnDisRef,
  kBootSeqEnDis1,
  kBootSeqEnDis2,
  kBootSeqEnDis3,
  kBootSeqEnDis4,
  kProcVirtualization = 0x1101,
  kLogicalProc,
  kProcX2Apic,
  kProcCores,
  kProcPwrLimit,
  kProcessorRef,
  kMemTest = 0x1201,
  kMemOpMode,
  kNodeInterleave,
  kMemRefreshRate,
  kMemPatrolScrub,
  kMemoryRef,
  kSetupPassword = 0x1301,
  kSysPassword,
  kPasswordStatus,
  kAssetTag,
  kTpmSecurity,
  kTpm12Compat,
  kSecureBoot,
  kSecurityRef,
  kEmbNic1 = 0x1401,
  kUsbPorts,
  kUsbManagedPort,
  kSriovGlobalEnable,
  kIntegratedDevicesRef,
};
}  // namespace bios

namespace nic {
enum : UINT16 {
  kLinkSpeed = 0x2001,
  kVLanMode,
  kVLanId,
  kLinkUpDelayTime,
  kWakeOnLan,
  kIscsiRef,
  kIscsiInitiatorName,
  kChapAuth,
  kChapSecret,
  kIscsiTargetPort,
};
}  // namespace nic

// Vendor GUIDs of the sample devices' variable stores.
extern const EFI_GUID kBiosSetupStoreGuid;     // buffer store "BiosSetup"
extern const EFI_GUID kBiosSecurityStoreGuid;  // EFI variable store "BiosSecurity"
extern const EFI_GUID kNicConfigStoreGuid;     // buffer store "NicConfig"
extern const EFI_GUID kNicFormSetGuid;

DeviceDescription biosSetupDevice();
DeviceDescription integratedNicDevice();
// Every sample device, in the order the platform registers them.
std::vector<DeviceDescription> sampleDevices();

}  // namespace tvl::host::sample
