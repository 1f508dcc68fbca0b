// The devices of the built-in sample platform, each a data description
// (form_description.h), with the names and values a server's setup has:
//   - the BIOS internal setup: the setup main menu, the System BIOS
//     settings (the form set exported for this device) and the boot
//     manager, three form sets in one package list;
//   - an integrated NIC partition whose vendor names have common names;
//   - a physical disk behind the integrated RAID controller, whose second
//     form set the forms processor cannot evaluate;
//   - a Fibre Channel port whose forms exist in "en-US" only;
//   - a RAID adapter whose forms are also translated into French.
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
  kUefiBootSeq,
  kUefiBootSeqEnDisRef,
  kUefiBootSeqEnDis1,
  kUefiBootSeqEnDis2,
  kUefiBootSeqEnDis3,
  kUefiBootSeqEnDis4,
  kUefiBootSeqEnDis5,
  kProcVirtualization = 0x1101,
  kLogicalProc,
  kProcX2Apic,
  kProcCores,
  kProcPwrLimit,
  kProcessorRef,
  kProcTempOffset,
  kMemTest = 0x1201,
  kMemOpMode,
  kNodeInterleave,
  kMemRefreshRate,
  kMemPatrolScrub,
  kMemoryRef,
  kMemVoltOffset,
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
  kEmbSata,
  kMiscRef = 0x1501,
  kVersion,
  kOsWatchdogTimeout,
  kRtcDriftComp,
  kSerialPortAddress,
  kSerialComm,
  kFanSpeedOffset,
};
}  // namespace bios

// The setup main menu and the boot manager, the BIOS device's other form sets.
namespace setupMenu {
enum : UINT16 { kSetupLanguage = 0x0101, kNumLock };
}  // namespace setupMenu
namespace bootManager {
enum : UINT16 { kOneShotBoot = 0x0201 };
}  // namespace bootManager

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
  kOptionRom,
  kBootToTarget,
  kTgtAsFirstHdd,
  kDhcpVendorId,
};
}  // namespace nic

namespace disk {
enum : UINT16 {
  kStatus = 0x3001,
  kWriteCache,
  kSmartPolling,
  kHotSpare,
  kPowerSaveIdleTime,
  kSelfTestAtBoot = 0x3101,
  kSelfTestType,
};
}  // namespace disk

namespace fc {
enum : UINT16 {
  kPortSpeed = 0x4001,
  kConnectionMode,
  kBootFromSan,
  kHardLoopId,
  kLinkDownTimeout,
  kBootTargetRef,
  kTargetWwpn,
  kTargetLun,
};
}  // namespace fc

namespace raid {
enum : UINT16 {
  kControllerMode = 0x5001,
  kBootMode,
  kPatrolReadRate,
  kRebuildRate,
  kAutoConfigure,
};
}  // namespace raid

// FQDDs of the sample devices.
extern const char16_t kBiosFqdd[];
extern const char16_t kNicFqdd[];
extern const char16_t kDiskFqdd[];
extern const char16_t kFcFqdd[];
extern const char16_t kRaidFqdd[];

// GUIDs of the sample devices' form sets and variable stores.
extern const EFI_GUID kSetupMenuFormSetGuid;    // BIOS device: setup main menu
extern const EFI_GUID kBootManagerFormSetGuid;  // BIOS device: boot manager
extern const EFI_GUID kBiosSetupStoreGuid;      // buffer store "BiosSetup"
extern const EFI_GUID kBiosSecurityStoreGuid;   // EFI variable store "BiosSecurity"
extern const EFI_GUID kBiosThermalStoreGuid;    // buffer store "BiosThermal", refuses wide zero writes
extern const EFI_GUID kNicConfigStoreGuid;      // buffer store "NicConfig"
extern const EFI_GUID kNicFormSetGuid;
extern const EFI_GUID kDiskConfigStoreGuid;     // buffer store "DiskConfig"
extern const EFI_GUID kDiskDiagnosticsFormSetGuid;
extern const EFI_GUID kFcFormSetGuid;
extern const EFI_GUID kRaidFormSetGuid;

DeviceDescription biosSetupDevice();
DeviceDescription integratedNicDevice();
DeviceDescription physicalDiskDevice();
DeviceDescription fibreChannelDevice();
DeviceDescription raidAdapterDevice();
// Every sample device, in the order the platform registers them.
std::vector<DeviceDescription> sampleDevices();

}  // namespace tvl::host::sample
