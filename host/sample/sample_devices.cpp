// The sample devices as data. Store layouts are checked by validate(): a
// question that runs past its store or overlaps another is refused.
#include "host/sample/sample_devices.h"

#include "host/hii/device_path.h"
#include "uefi/services.h"

namespace tvl::host::sample {

const EFI_GUID kBiosSetupStoreGuid = {0x5c3a0f2e, 0x1d4b, 0x4a7e, {0x9b, 0x61, 0x2e, 0x84, 0x0d, 0x3f, 0x71, 0xa5}};
const EFI_GUID kBiosSecurityStoreGuid = {0x7e21b9d4, 0x6a0c, 0x4f13, {0xa8, 0x2d, 0x51, 0xc6, 0x93, 0x0b, 0x4e, 0x17}};
const EFI_GUID kNicConfigStoreGuid = {0x2b6f4d81, 0x93ae, 0x4c05, {0xb7, 0x1e, 0x6d, 0x08, 0xf2, 0x5a, 0xc3, 0x94}};
const EFI_GUID kNicFormSetGuid = {0xa4d81c37, 0x5e92, 0x4b6a, {0x8f, 0x03, 0x7c, 0x1d, 0x26, 0xe9, 0xb8, 0x50}};

namespace {

using ifr::Width;
using ifr::ideqval;

const EFI_GUID kBiosSetupFormSetGuid = INTERNAL_BIOS_SETUP_FORMSET_GUID;
const EFI_GUID kBiosPackageListGuid = {0x1f0e6c2a, 0x3b58, 0x4d91, {0xa6, 0x7c, 0x08, 0x5e, 0x2f, 0xd1, 0x94, 0x3b}};
const EFI_GUID kBiosDeviceVendor = {0x6b2e8a10, 0x4c7d, 0x4e3f, {0x91, 0x5a, 0xd2, 0x3c, 0x07, 0xb8, 0x6e, 0x41}};
const EFI_GUID kNicPackageListGuid = {0xd93a7e05, 0x21c4, 0x4f8b, {0x9e, 0x36, 0xa1, 0x57, 0x0c, 0x4d, 0xe2, 0x68}};

constexpr UINT16 kSetup = 1;     // BiosSetup buffer store
constexpr UINT16 kSecurity = 2;  // BiosSecurity EFI variable store
constexpr UINT16 kNic = 1;       // NicConfig buffer store
constexpr UINT16 kMfg = EFI_HII_DEFAULT_CLASS_MANUFACTURING;
constexpr UINT8 kDef = EFI_IFR_OPTION_DEFAULT;
constexpr UINT8 kDefMfg = EFI_IFR_OPTION_DEFAULT | EFI_IFR_OPTION_DEFAULT_MFG;

// The boot devices of the boot sequence, by their location texts.
constexpr const char16_t* kBootDevices[] = {u"HardDisk.List.1-1", u"NIC.Integrated.1-1-1",
                                            u"Optical.SATAEmbedded.J-1", u"Disk.USBFront.1-1"};
constexpr const char16_t* kBootDeviceNames[] = {u"Embedded SATA Port Disk A", u"Integrated NIC 1 Port 1 Partition 1",
                                                u"Embedded SATA Port Optical Drive", u"Front USB Drive"};

FormDescription mainForm() {
  return {1,
          u"System BIOS Settings",
          u"SysBiosMain",
          {
              subtitle(u"System BIOS Settings", u"SysBiosSubtitle"),
              text(u"System BIOS Version", u"SystemBiosVersion", u"1.4.2"),
              reference(bios::kBootSettingsRef, u"Boot Settings", u"BootSettingsRef", 2),
              reference(bios::kProcessorRef, u"Processor Settings", u"ProcSettingsRef", 3),
              reference(bios::kMemoryRef, u"Memory Settings", u"MemSettingsRef", 4),
              reference(bios::kSecurityRef, u"System Security", u"SysSecurityRef", 5),
              reference(bios::kIntegratedDevicesRef, u"Integrated Devices", u"IntegratedDevicesRef", 6),
          }};
}

FormDescription bootForm() {
  Statement sequence = orderedList(bios::kBootSeq, u"Boot Sequence", u"BootSeq", Width::U8, 4)
                           .at(kSetup, 0x04)
                           .help(u"Order in which the system tries the boot devices.")
                           .defaultList({1, 2, 3, 4})
                           .values({2, 1, 3, 4});
  for (UINT64 i = 0; i < 4; ++i) sequence.option(kBootDeviceNames[i], kBootDevices[i], i + 1);
  return {2,
          u"Boot Settings",
          u"BootSettings",
          {
              subtitle(u"Boot Settings", u"BootSettingsSubtitle"),
              oneOf(bios::kBootMode, u"Boot Mode", u"BootMode[ProgWrite:true]")
                  .at(kSetup, 0x00)
                  .help(u"UEFI or legacy BIOS boot.")
                  .resetRequired()
                  .option(u"UEFI", u"Uefi", 0, kDefMfg)
                  .option(u"BIOS", u"Bios", 1)
                  // Legacy fallback is offered only while the TPM is off.
                  .optionIf(suppressIf(ideqval(bios::kTpmSecurity, 1)), u"UEFI with Legacy Fallback",
                            u"UefiLegacyFallback", 2)
                  .value(0),
              checkbox(bios::kBootSeqRetry, u"Boot Sequence Retry", u"BootSeqRetry")
                  .at(kSetup, 0x01)
                  .checkboxDefaults(true, true)
                  .value(1),
              checkbox(bios::kLegacyOptionRom, u"Legacy Option ROMs", u"LegacyOptionRom[ProgUnhide:true]")
                  .at(kSetup, 0x02)
                  .when(suppressIf(ideqval(bios::kBootMode, 0)))
                  .value(0),
              sequence,
              reference(bios::kBootSeqEnDisRef, u"Boot Sequence Enable/Disable", u"BootSeqEnDisRef", 7),
          }};
}

// One enable checkbox per boot-sequence entry, named by the entry's FQDD.
FormDescription bootSequenceSwitchForm() {
  FormDescription form{7, u"Boot Sequence Enable/Disable", u"BootSeqEnDis", {}};
  const UINT64 enabled[] = {1, 1, 0, 1};
  for (UINT16 i = 0; i < 4; ++i) {
    form.statements.push_back(checkbox(UINT16(bios::kBootSeqEnDis1 + i), kBootDeviceNames[i],
                                       u"BootSeqEnDis[FQDD:" + std::u16string(kBootDevices[i]) + u"]")
                                  .at(kSetup, UINT16(0x08 + i))
                                  .checkboxDefaults(true, true)
                                  .value(enabled[i]));
  }
  return form;
}

FormDescription processorForm() {
  return {3,
          u"Processor Settings",
          u"ProcSettings",
          {
              subtitle(u"Processor Settings", u"ProcSettingsSubtitle"),
              text(u"Processor Brand", u"ProcBrand", u"Sample CPU 16C @ 2.40GHz"),
              checkbox(bios::kProcVirtualization, u"Virtualization Technology", u"ProcVirtualization")
                  .at(kSetup, 0x20)
                  .resetRequired()
                  .checkboxDefaults(true, true)
                  .value(1),
              checkbox(bios::kLogicalProc, u"Logical Processor", u"LogicalProc")
                  .at(kSetup, 0x21)
                  .checkboxDefaults(true, false)
                  .value(1),
              // x2APIC follows virtualization unless set otherwise.
              checkbox(bios::kProcX2Apic, u"x2APIC Mode", u"ProcX2Apic")
                  .at(kSetup, 0x22)
                  .defaultExpression(ideqval(bios::kProcVirtualization, 1))
                  .defaultBoolean(false, kMfg)
                  .value(1),
              numeric(bios::kProcCores, u"Number of Cores per Processor", u"ProcCores", Width::U8)
                  .at(kSetup, 0x23)
                  .range(0, 64, 1)
                  .help(u"0 enables every core.")
                  .defaultNumber(0)
                  .value(0),
              numeric(bios::kProcPwrLimit, u"Package Power Limit (W)", u"ProcPwrLimit", Width::U32)
                  .at(kSetup, 0x24)
                  .range(35, 500, 5)
                  .resetRequired()
                  .defaultNumber(165)
                  .defaultNumber(125, kMfg)
                  .value(165),
          }};
}

FormDescription memoryForm() {
  return {4,
          u"Memory Settings",
          u"MemSettings",
          {
              subtitle(u"Memory Settings", u"MemSettingsSubtitle"),
              checkbox(bios::kMemTest, u"System Memory Testing", u"MemTest").at(kSetup, 0x30).value(0),
              oneOf(bios::kMemOpMode, u"Memory Operating Mode", u"MemOpMode", Width::U16)
                  .at(kSetup, 0x32)
                  .resetRequired()
                  .option(u"Optimizer Mode", u"OptimizerMode", 0, kDef)
                  .option(u"Mirror Mode", u"MirrorMode", 1)
                  .option(u"Fault Resilient Mode", u"FaultResilientMode", 2, EFI_IFR_OPTION_DEFAULT_MFG)
                  .value(1),
              checkbox(bios::kNodeInterleave, u"Node Interleaving", u"NodeInterleave[ReadOnlyIf:MemOpMode=MirrorMode]")
                  .at(kSetup, 0x34)
                  .when(grayOutIf(ideqval(bios::kMemOpMode, 1)))
                  .value(0),
              numeric(bios::kMemRefreshRate, u"Memory Refresh Rate (ms)", u"MemRefreshRate", Width::U16)
                  .at(kSetup, 0x36)
                  .range(32, 64, 32)
                  .defaultNumber(32)
                  .value(64),
              numeric(bios::kMemPatrolScrub, u"Patrol Scrub Interval (us)", u"MemPatrolScrub", Width::U64)
                  .at(kSetup, 0x38)
                  .range(1000000, 86400000000ull, 1000000)
                  .defaultNumber(86400000000ull)
                  .value(43200000000ull),
          }};
}

FormDescription securityForm() {
  return {5,
          u"System Security",
          u"SysSecurity",
          {
              subtitle(u"System Security", u"SysSecuritySubtitle"),
              password(bios::kSetupPassword, u"Setup Password", u"SetupPassword", 0, 32)
                  .at(kSetup, 0x40)
                  .help(u"Password that guards the setup pages."),
              password(bios::kSysPassword, u"System Password", u"SysPassword", 0, 32).at(kSetup, 0x80),
              oneOf(bios::kPasswordStatus, u"Password Status", u"PasswordStatus")
                  .at(kSetup, 0xC0)
                  .readOnly()
                  .option(u"Unlocked", u"Unlocked", 0, kDef)
                  .option(u"Locked", u"Locked", 1)
                  .value(0),
              string(bios::kAssetTag, u"Asset Tag", u"AssetTag", 0, 10).at(kSetup, 0xC2).valueText(u"ASSET-0042"),
              oneOf(bios::kTpmSecurity, u"TPM Security", u"TpmSecurity")
                  .at(kSecurity, 0)
                  .resetRequired()
                  .option(u"Off", u"Off", 0)
                  .option(u"On", u"On", 1, kDefMfg)
                  .value(1),
              // Only meaningful while the TPM is off.
              checkbox(bios::kTpm12Compat, u"TPM 1.2 Compatibility", u"Tpm12Compat")
                  .at(kSecurity, 1)
                  .when(disableIf(ideqval(bios::kTpmSecurity, 1)))
                  .value(0),
              checkbox(bios::kSecureBoot, u"Secure Boot", u"SecureBoot")
                  .at(kSecurity, 2)
                  .locked()
                  .defaultBoolean(false)
                  .value(0),
          }};
}

FormDescription integratedDevicesForm() {
  return {6,
          u"Integrated Devices",
          u"IntegratedDevices",
          {
              subtitle(u"Integrated Devices", u"IntegratedDevicesSubtitle"),
              oneOf(bios::kEmbNic1, u"Embedded NIC1", u"EmbNic1[FQDD:NIC.Integrated.1-1-1]")
                  .at(kSetup, 0xE0)
                  .resetRequired()
                  .option(u"Enabled", u"Enabled", 1, kDefMfg)
                  .option(u"Disabled (OS)", u"DisabledOs", 2)
                  .option(u"Disabled", u"Disabled", 0)
                  .value(1),
              checkbox(bios::kUsbPorts, u"User Accessible USB Ports", u"UsbPorts")
                  .at(kSetup, 0xE1)
                  .checkboxDefaults(true, true)
                  .value(1),
              checkbox(bios::kUsbManagedPort, u"Management USB Port", u"UsbManagedPort[SuppressIf:UsbPorts=0]")
                  .at(kSetup, 0xE2)
                  .when(suppressIf(ideqval(bios::kUsbPorts, 0)))
                  .value(1),
              checkbox(bios::kSriovGlobalEnable, u"SR-IOV Global Enable", u"SriovGlobalEnable")
                  .at(kSetup, 0xE3)
                  .value(0),
          }};
}

FormDescription nicMainForm() {
  return {1,
          u"Main Configuration Page",
          u"NICMain",
          {
              subtitle(u"Integrated NIC 1 Port 1", u"NICSubtitle"),
              text(u"MAC Address", u"MacAddr", u"00:1B:21:3C:4D:5E"),
              oneOf(nic::kLinkSpeed, u"Link Speed", u"LnkSpeed")
                  .at(kNic, 0x00)
                  .option(u"Auto Negotiated", u"AutoNeg", 0, kDefMfg)
                  .option(u"10 Mbps Half", u"10MbpsHalf", 1)
                  .option(u"10 Mbps Full", u"10MbpsFull", 2)
                  .option(u"100 Mbps Half", u"100MbpsHalf", 3)
                  .option(u"100 Mbps Full", u"100MbpsFull", 4)
                  .option(u"1000 Mbps Full", u"1000MbpsFull", 5)
                  .value(0),
              checkbox(nic::kVLanMode, u"Virtual LAN Mode", u"VLanMode").at(kNic, 0x01).value(0),
              numeric(nic::kVLanId, u"Virtual LAN ID", u"VLanId[ReadOnlyIf:VLanMode=0]", Width::U16)
                  .at(kNic, 0x02)
                  .range(1, 4094, 1)
                  .when(grayOutIf(ideqval(nic::kVLanMode, 0)))
                  .defaultNumber(1)
                  .value(1),
              numeric(nic::kLinkUpDelayTime, u"Link Up Delay Time (s)", u"LinkUpDelayTime", Width::U8)
                  .at(kNic, 0x04)
                  .range(0, 30, 1)
                  .defaultNumber(0)
                  .value(5),
              oneOf(nic::kWakeOnLan, u"Wake On LAN", u"WakeOnLan")
                  .at(kNic, 0x05)
                  .option(u"Disabled", u"Disabled", 0, kDef)
                  .option(u"Enabled", u"Enabled", 1)
                  .value(1),
              reference(nic::kIscsiRef, u"iSCSI Configuration", u"IscsiConfigRef", 2),
          }};
}

FormDescription nicIscsiForm() {
  return {2,
          u"iSCSI Configuration",
          u"IscsiConfig",
          {
              string(nic::kIscsiInitiatorName, u"iSCSI Initiator Name", u"IscsiInitiatorName", 0, 32)
                  .at(kNic, 0x10)
                  .valueText(u"iqn.2024-01.com.example:host1"),
              checkbox(nic::kChapAuth, u"CHAP Authentication", u"ChapAuthEnable").at(kNic, 0x0C).value(1),
              password(nic::kChapSecret, u"CHAP Secret", u"ChapSecret", 12, 16)
                  .at(kNic, 0x50)
                  .help(u"Secret the initiator proves to the target."),
              numeric(nic::kIscsiTargetPort, u"iSCSI Target Port", u"IscsiTargetPort", Width::U16)
                  .at(kNic, 0x0E)
                  .range(1, 65535, 1)
                  .defaultNumber(3260)
                  .value(3260),
          }};
}

}  // namespace

DeviceDescription biosSetupDevice() {
  DeviceDescription d;
  d.fqdd = u"BIOS.InternalSetup.1-1";
  d.description = u"System BIOS Setup";
  d.devicePath = hii::DevicePathBuilder().vendorHardware(kBiosDeviceVendor).build();
  d.packageListGuid = kBiosPackageListGuid;
  FormSetDescription& fs = d.formSet;
  fs.guid = kBiosSetupFormSetGuid;
  fs.title = u"System BIOS Settings";
  fs.keyword = u"SysBios";
  fs.helpText = u"Configuration of the system firmware.";
  fs.varStores = {
      {kSetup, kBiosSetupStoreGuid, "BiosSetup", 0x100, false, 0},
      {kSecurity, kBiosSecurityStoreGuid, "BiosSecurity", 0x04, true,
       EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS},
  };
  fs.forms = {mainForm(), bootForm(), processorForm(), memoryForm(), securityForm(), integratedDevicesForm(),
              bootSequenceSwitchForm()};
  return d;
}

DeviceDescription integratedNicDevice() {
  DeviceDescription d;
  d.fqdd = u"NIC.Integrated.1-1-1";
  d.description = u"Integrated NIC 1 Port 1 Partition 1";
  d.devicePath = hii::DevicePathBuilder()
                     .pciRoot(0)
                     .pci(0x1C, 0)
                     .pci(0, 0)
                     .mac({0x00, 0x1B, 0x21, 0x3C, 0x4D, 0x5E})
                     .build();
  d.packageListGuid = kNicPackageListGuid;
  FormSetDescription& fs = d.formSet;
  fs.guid = kNicFormSetGuid;
  fs.title = u"Integrated NIC 1 Port 1 Configuration";
  fs.keyword = u"NICConfig";
  fs.helpText = u"Link, VLAN and iSCSI settings of the port.";
  fs.varStores = {{kNic, kNicConfigStoreGuid, "NicConfig", 0x80, false, 0}};
  fs.forms = {nicMainForm(), nicIscsiForm()};
  return d;
}

std::vector<DeviceDescription> sampleDevices() { return {biosSetupDevice(), integratedNicDevice()}; }

}  // namespace tvl::host::sample
