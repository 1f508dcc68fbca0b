// The sample devices as data. Store layouts are checked by validate(): a
// question that runs past its store or overlaps another is refused.
#include "host/sample/sample_devices.h"

#include "host/hii/device_path.h"
#include "uefi/services.h"

namespace tvl::host::sample {

const char16_t kBiosFqdd[] = u"BIOS.InternalSetup.1-1";
const char16_t kNicFqdd[] = u"NIC.Integrated.1-1-1";
const char16_t kDiskFqdd[] = u"Disk.Bay.0:Enclosure.Internal.0-1:RAID.Integrated.1-1";
const char16_t kFcFqdd[] = u"FC.Slot.2-1";
const char16_t kRaidFqdd[] = u"RAID.Slot.6-1";

const EFI_GUID kSetupMenuFormSetGuid = {0x6d0555c7, 0xfc60, 0x459c, {0xa3, 0x26, 0x7f, 0x27, 0xa9, 0x3f, 0xfd, 0x96}};
const EFI_GUID kBootManagerFormSetGuid = {0x1cdada2b, 0xa8cc, 0x4baa, {0x92, 0x62, 0x0f, 0xb5, 0x76, 0xc2, 0x72, 0xea}};
const EFI_GUID kBiosSetupStoreGuid = {0x5c3a0f2e, 0x1d4b, 0x4a7e, {0x9b, 0x61, 0x2e, 0x84, 0x0d, 0x3f, 0x71, 0xa5}};
const EFI_GUID kBiosSecurityStoreGuid = {0x7e21b9d4, 0x6a0c, 0x4f13, {0xa8, 0x2d, 0x51, 0xc6, 0x93, 0x0b, 0x4e, 0x17}};
const EFI_GUID kBiosThermalStoreGuid = {0x4a9c6e13, 0x8f27, 0x4d5b, {0xb0, 0x3e, 0x72, 0x1d, 0xc8, 0x56, 0x09, 0xaf}};
const EFI_GUID kNicConfigStoreGuid = {0x2b6f4d81, 0x93ae, 0x4c05, {0xb7, 0x1e, 0x6d, 0x08, 0xf2, 0x5a, 0xc3, 0x94}};
const EFI_GUID kNicFormSetGuid = {0xa4d81c37, 0x5e92, 0x4b6a, {0x8f, 0x03, 0x7c, 0x1d, 0x26, 0xe9, 0xb8, 0x50}};
const EFI_GUID kDiskConfigStoreGuid = {0x9bc50816, 0x207f, 0x4c5c, {0xbc, 0x2c, 0x54, 0x3d, 0xfa, 0xe7, 0x35, 0x11}};
const EFI_GUID kDiskDiagnosticsFormSetGuid = {
    0x62208857, 0xfe4e, 0x4bc0, {0xbf, 0xbc, 0x38, 0x1a, 0xa3, 0x71, 0x6e, 0xdf}};
const EFI_GUID kFcFormSetGuid = {0x3f47da57, 0x4e53, 0x474a, {0x94, 0x84, 0xdf, 0x08, 0xf5, 0xdf, 0xdb, 0x50}};
const EFI_GUID kRaidFormSetGuid = {0x78a52eb9, 0x46fa, 0x451a, {0xb3, 0x55, 0x62, 0x43, 0x5a, 0x98, 0x95, 0xc2}};

namespace {

using ifr::Width;
using ifr::ideqval;

const EFI_GUID kBiosSetupFormSetGuid = INTERNAL_BIOS_SETUP_FORMSET_GUID;
const EFI_GUID kDiskFormSetGuid = INTERNAL_SSD_SETUP_FORMSET_GUID;
const EFI_GUID kPlatformSetupClassGuid = EFI_HII_PLATFORM_SETUP_FORMSET_GUID;
const EFI_GUID kBiosPackageListGuid = {0x1f0e6c2a, 0x3b58, 0x4d91, {0xa6, 0x7c, 0x08, 0x5e, 0x2f, 0xd1, 0x94, 0x3b}};
const EFI_GUID kBiosDeviceVendor = {0x6b2e8a10, 0x4c7d, 0x4e3f, {0x91, 0x5a, 0xd2, 0x3c, 0x07, 0xb8, 0x6e, 0x41}};
const EFI_GUID kSetupMenuStoreGuid = {0xe27a4def, 0x141a, 0x4e38, {0xbc, 0xf5, 0x36, 0x45, 0x54, 0x23, 0x2f, 0x8c}};
const EFI_GUID kBootManagerStoreGuid = {0x16ac3dbf, 0xa84e, 0x44eb, {0xa8, 0xdc, 0x70, 0x5f, 0xd6, 0x7f, 0x9c, 0xc3}};
const EFI_GUID kNicPackageListGuid = {0xd93a7e05, 0x21c4, 0x4f8b, {0x9e, 0x36, 0xa1, 0x57, 0x0c, 0x4d, 0xe2, 0x68}};
const EFI_GUID kDiskDiagnosticsStoreGuid = {
    0x826b2628, 0x7294, 0x4b90, {0x97, 0xb8, 0xe9, 0x33, 0x3c, 0xf3, 0xb9, 0x0f}};
const EFI_GUID kDiskPackageListGuid = {0x3925ffb1, 0x3280, 0x4f46, {0xa9, 0xd7, 0x8b, 0xd1, 0xdf, 0x99, 0x47, 0x62}};
const EFI_GUID kFcStoreGuid = {0x2b9d2e7d, 0xb086, 0x4708, {0x80, 0xe9, 0x46, 0x89, 0x83, 0x36, 0x5c, 0x76}};
const EFI_GUID kFcPackageListGuid = {0xf00541f3, 0xa0d7, 0x48b6, {0x9b, 0xe9, 0x64, 0x5c, 0xec, 0x71, 0x5e, 0x38}};
const EFI_GUID kRaidStoreGuid = {0xfe8d2124, 0xdd31, 0x423a, {0xbd, 0x51, 0x4b, 0x7c, 0x48, 0x85, 0x13, 0xd8}};
const EFI_GUID kRaidPackageListGuid = {0x26d9b0cd, 0x8438, 0x46ac, {0xa2, 0xab, 0x1d, 0x2e, 0x5a, 0xc7, 0x5c, 0x8d}};

constexpr UINT16 kSetup = 1;     // BiosSetup buffer store
constexpr UINT16 kSecurity = 2;  // BiosSecurity EFI variable store
constexpr UINT16 kThermal = 3;   // BiosThermal buffer store, refuses zero writes wider than a byte
constexpr UINT16 kStore = 1;     // the only store of a form set that has one
constexpr UINT16 kMfg = EFI_HII_DEFAULT_CLASS_MANUFACTURING;
constexpr UINT8 kDef = EFI_IFR_OPTION_DEFAULT;
constexpr UINT8 kDefMfg = EFI_IFR_OPTION_DEFAULT | EFI_IFR_OPTION_DEFAULT_MFG;
constexpr UINT32 kNvBs = EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS;

// ---------------------------------------------------------------- BIOS device
// The legacy boot devices of "BootSeq", by their location texts.
constexpr const char16_t* kBootDevices[] = {u"HardDisk.List.1-1", u"NIC.Integrated.1-1-1",
                                            u"Optical.SATAEmbedded.J-1", u"Disk.USBFront.1-1"};
constexpr const char16_t* kBootDeviceNames[] = {u"Embedded SATA Port Disk A", u"Integrated NIC 1 Port 1 Partition 1",
                                                u"Embedded SATA Port Optical Drive", u"Front USB Drive"};

// The UEFI boot options of "UefiBootSeq": the boot device's location text
// and the tokens that tell two options of one device apart (a PXE boot
// over IPv4 and over IPv6 from the same port).
struct UefiBootOption {
  const char16_t* name;
  const char16_t* device;
  const char16_t* modifiers;
};
constexpr UefiBootOption kUefiBootOptions[] = {
    {u"PXE Device 1: Integrated NIC 1 Port 1 Partition 1 (IPv4)", u"NIC.PxeDevice.1-1", u"[Protocol:IPv4]"},
    {u"PXE Device 1: Integrated NIC 1 Port 1 Partition 1 (IPv6)", u"NIC.PxeDevice.1-1", u"[Protocol:IPv6]"},
    {u"Embedded SATA Port Disk A", u"Disk.SATAEmbedded.A-1", u""},
    {u"Physical Disk 0:1:0 on Integrated RAID Controller 1", kDiskFqdd, u""},
    {u"Front USB Drive", u"Disk.USBFront.1-1", u""},
};
constexpr size_t kUefiBootOptionCount = sizeof(kUefiBootOptions) / sizeof(kUefiBootOptions[0]);

FormDescription mainForm() {
  return {1,
          u"System BIOS Settings",
          u"SysBiosMain",
          {
              subtitle(u"System BIOS Settings", u"SysBiosSubtitle"),
              text(u"System BIOS Version", u"SystemBiosVersion", u"1.4.2"),
              // Written by the firmware: the trailing blanks pad the field.
              string(bios::kVersion, u"Setup Data Version", u"Version", 0, 16)
                  .at(kSetup, 0x120)
                  .readOnly()
                  .valueText(u"2.19.1    "),
              reference(bios::kBootSettingsRef, u"Boot Settings", u"BootSettingsRef", 2),
              reference(bios::kProcessorRef, u"Processor Settings", u"ProcSettingsRef", 3),
              reference(bios::kMemoryRef, u"Memory Settings", u"MemSettingsRef", 4),
              reference(bios::kSecurityRef, u"System Security", u"SysSecurityRef", 5),
              reference(bios::kIntegratedDevicesRef, u"Integrated Devices", u"IntegratedDevicesRef", 6),
              reference(bios::kMiscRef, u"Miscellaneous Settings", u"MiscSettingsRef", 9),
          }};
}

FormDescription bootForm() {
  // The legacy sequence is offered in BIOS boot mode, the UEFI one in UEFI mode.
  Statement sequence = orderedList(bios::kBootSeq, u"Boot Sequence", u"BootSeq", Width::U8, 4)
                           .at(kSetup, 0x04)
                           .help(u"Order in which the system tries the boot devices.")
                           .when(suppressIf(ideqval(bios::kBootMode, 0)))
                           .defaultList({1, 2, 3, 4})
                           .values({2, 1, 3, 4});
  for (UINT64 i = 0; i < 4; ++i) sequence.option(kBootDeviceNames[i], kBootDevices[i], i + 1);
  Statement uefiSequence = orderedList(bios::kUefiBootSeq, u"UEFI Boot Sequence", u"UefiBootSeq", Width::U16, 5)
                               .at(kSetup, 0x10)
                               .help(u"Order in which the system tries the UEFI boot options.")
                               .when(suppressIf(ideqval(bios::kBootMode, 1)))
                               .defaultList({1, 2, 3, 4, 5})
                               .defaultList({3, 4, 1, 2, 5}, kMfg)
                               .values({4, 1, 3, 2, 5});
  for (UINT64 i = 0; i < kUefiBootOptionCount; ++i) {
    const UefiBootOption& o = kUefiBootOptions[i];
    uefiSequence.option(o.name, std::u16string(o.device) + o.modifiers, i + 1);
  }
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
              reference(bios::kBootSeqEnDisRef, u"Boot Sequence Enable/Disable", u"BootSeqEnDisRef", 7)
                  .when(suppressIf(ideqval(bios::kBootMode, 0))),
              uefiSequence,
              reference(bios::kUefiBootSeqEnDisRef, u"UEFI Boot Sequence Enable/Disable", u"UefiBootSeqEnDisRef", 8)
                  .when(suppressIf(ideqval(bios::kBootMode, 1))),
          }};
}

// One enable checkbox per legacy boot-sequence entry, named by the entry's FQDD.
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

// One enable checkbox per UEFI boot option: the option's device and the
// same modifier tokens as the option, so that the two PXE options of one
// port each have their own.
FormDescription uefiBootSequenceSwitchForm() {
  FormDescription form{8, u"UEFI Boot Sequence Enable/Disable", u"UefiBootSeqEnDis", {}};
  const UINT64 enabled[] = {1, 0, 1, 1, 0};
  for (UINT16 i = 0; i < kUefiBootOptionCount; ++i) {
    const UefiBootOption& o = kUefiBootOptions[i];
    form.statements.push_back(checkbox(UINT16(bios::kUefiBootSeqEnDis1 + i), o.name,
                                       u"UefiBootSeqEnDis[FQDD:" + std::u16string(o.device) + u"]" + o.modifiers)
                                  .at(kSetup, UINT16(0x1A + i))
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
                  .defaultNumber(0, kMfg)
                  .value(0),
              numeric(bios::kProcPwrLimit, u"Package Power Limit (W)", u"ProcPwrLimit", Width::U32)
                  .at(kSetup, 0x24)
                  .range(35, 500, 5)
                  .resetRequired()
                  .defaultNumber(165)
                  .defaultNumber(125, kMfg)
                  .value(165),
              numeric(bios::kProcTempOffset, u"Temperature Control Offset (C)", u"ProcTempOffset", Width::U8)
                  .at(kSetup, 0x28)
                  .signedRange(-15, 15, 1)
                  .help(u"Lowers or raises the temperature at which the processors throttle.")
                  .defaultSigned(0)
                  .defaultSigned(-5, kMfg)
                  .signedValue(3),
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
                  .defaultNumber(64, kMfg)
                  .value(64),
              numeric(bios::kMemPatrolScrub, u"Patrol Scrub Interval (us)", u"MemPatrolScrub", Width::U64)
                  .at(kSetup, 0x38)
                  .range(1000000, 86400000000ull, 1000000)
                  .defaultNumber(86400000000ull)
                  .defaultNumber(3600000000ull, kMfg)
                  .value(43200000000ull),
              numeric(bios::kMemVoltOffset, u"Memory Voltage Offset (mV)", u"MemVoltOffset", Width::U16)
                  .at(kSetup, 0x100)
                  .signedRange(-50, 50, 5)
                  .resetRequired()
                  .defaultSigned(0)
                  .defaultSigned(-25, kMfg)
                  .signedValue(-10),
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
              // ATA mode is no longer offered, but a system set to it keeps
              // it until it is changed: the current value is a suppressed
              // option.
              oneOf(bios::kEmbSata, u"Embedded SATA", u"EmbSata")
                  .at(kSetup, 0xE4)
                  .resetRequired()
                  .option(u"AHCI Mode", u"AhciMode", 1, kDefMfg)
                  .option(u"RAID Mode", u"RaidMode", 2)
                  .option(u"Off", u"Off", 0)
                  .optionIf(suppressIf(ifr::True()), u"ATA Mode", u"AtaMode", 3)
                  .value(3),
          }};
}

FormDescription miscellaneousForm() {
  return {9,
          u"Miscellaneous Settings",
          u"MiscSettings",
          {
              subtitle(u"Miscellaneous Settings", u"MiscSettingsSubtitle"),
              // -1 turns the watchdog off.
              numeric(bios::kOsWatchdogTimeout, u"OS Watchdog Timeout (s)", u"OsWatchdogTimeout", Width::U32)
                  .at(kSetup, 0x104)
                  .signedRange(-1, 3600, 1)
                  .defaultSigned(-1)
                  .defaultSigned(300, kMfg)
                  .signedValue(-1),
              numeric(bios::kRtcDriftComp, u"RTC Drift Compensation (ppb)", u"RtcDriftComp", Width::U64)
                  .at(kSetup, 0x108)
                  .signedRange(-1000000, 1000000, 1)
                  .defaultSigned(0)
                  .defaultSigned(-250, kMfg)
                  .signedValue(-125),
              oneOf(bios::kSerialPortAddress, u"Serial Port Address", u"SerialPortAddress")
                  .at(kSetup, 0x111)
                  .option(u"Serial Device1=COM1,Serial Device2=COM2", u"Serial1Com1Serial2Com2", 0, kDefMfg)
                  .option(u"Serial Device1=COM2,Serial Device2=COM1", u"Serial1Com2Serial2Com1", 1)
                  .value(1),
              // Redirection is offered on the port that serial device 1
              // does not hold; "Auto" carries its own condition in its
              // keyword text; the old combined setting is no longer offered.
              oneOf(bios::kSerialComm, u"Serial Communication", u"SerialComm")
                  .at(kSetup, 0x110)
                  .option(u"Off", u"Off", 0, kDef)
                  .option(u"On without Console Redirection", u"OnNoConRedir", 1, EFI_IFR_OPTION_DEFAULT_MFG)
                  .optionIf(suppressIf(ideqval(bios::kSerialPortAddress, 1)), u"On with Console Redirection via COM1",
                            u"OnConRedirCom1", 2)
                  .optionIf(suppressIf(ideqval(bios::kSerialPortAddress, 0)), u"On with Console Redirection via COM2",
                            u"OnConRedirCom2", 3)
                  .option(u"Auto", u"OnConRedirAuto[SuppressIf:SerialPortAddress=Serial1Com2Serial2Com1]", 4)
                  .optionIf(suppressIf(ifr::True()), u"On with Console Redirection", u"OnConRedir", 5)
                  .value(1),
              // The low byte is the offset in percent; the high byte selects
              // the fan table and belongs to the firmware, whose driver
              // therefore refuses to write zero over the whole field.
              numeric(bios::kFanSpeedOffset, u"Fan Speed Offset", u"FanSpeedOffset", Width::U16)
                  .at(kThermal, 0x00)
                  .range(0, 0xFFFF, 1)
                  .value(0x0214),
          }};
}

FormSetDescription setupMenuFormSet() {
  FormSetDescription fs;
  fs.guid = kSetupMenuFormSetGuid;
  fs.title = u"System Setup";
  fs.keyword = u"SysSetup";
  fs.helpText = u"Main menu of the system setup.";
  fs.varStores = {{kStore, kSetupMenuStoreGuid, "SetupMenu", 0x04, false, 0}};
  fs.forms = {{1,
               u"System Setup Main Menu",
               u"SysSetupMain",
               {
                   subtitle(u"System Setup Main Menu", u"SysSetupMainSubtitle"),
                   text(u"Service Tag", u"SvcTag", u"7XK2Q93"),
                   oneOf(setupMenu::kSetupLanguage, u"Setup Language", u"SetupLanguage")
                       .at(kStore, 0x00)
                       .option(u"English", u"English", 0, kDefMfg)
                       .option(u"Fran\u00e7ais", u"French", 1)
                       .value(0),
                   checkbox(setupMenu::kNumLock, u"Keyboard NumLock", u"NumLock")
                       .at(kStore, 0x01)
                       .checkboxDefaults(true, true)
                       .value(1),
               }}};
  return fs;
}

FormSetDescription biosSettingsFormSet() {
  FormSetDescription fs;
  fs.guid = kBiosSetupFormSetGuid;
  fs.title = u"System BIOS Settings";
  fs.keyword = u"SysBios";
  fs.helpText = u"Configuration of the system firmware.";
  fs.varStores = {
      {kSetup, kBiosSetupStoreGuid, "BiosSetup", 0x140, false, 0},
      {kSecurity, kBiosSecurityStoreGuid, "BiosSecurity", 0x04, true, kNvBs},
      {kThermal, kBiosThermalStoreGuid, "BiosThermal", 0x04, false, 0, true},
  };
  fs.forms = {mainForm(),         bootForm(),   processorForm(),          memoryForm(),
              securityForm(),     integratedDevicesForm(), miscellaneousForm(), bootSequenceSwitchForm(),
              uefiBootSequenceSwitchForm()};
  return fs;
}

FormSetDescription bootManagerFormSet() {
  Statement oneShot = oneOf(bootManager::kOneShotBoot, u"One-Shot UEFI Boot", u"OneShotUefiBoot", Width::U16)
                          .at(kStore, 0x00)
                          .help(u"Boots once from the chosen option at the next start.")
                          .option(u"None", u"None", 0, kDefMfg);
  for (UINT64 i = 0; i < kUefiBootOptionCount; ++i) {
    const UefiBootOption& o = kUefiBootOptions[i];
    oneShot.option(o.name, std::u16string(o.device) + o.modifiers, i + 1);
  }
  FormSetDescription fs;
  fs.guid = kBootManagerFormSetGuid;
  fs.title = u"Boot Manager";
  fs.keyword = u"BootManager";
  fs.helpText = u"One-shot boot and boot utilities.";
  fs.varStores = {{kStore, kBootManagerStoreGuid, "OneShotBoot", 0x02, true, kNvBs}};
  fs.forms = {{1,
               u"Boot Manager Main Menu",
               u"BootManagerMain",
               {subtitle(u"Boot Manager Main Menu", u"BootManagerSubtitle"), oneShot.value(0)}}};
  return fs;
}

// ---------------------------------------------------------------- NIC
FormDescription nicMainForm() {
  return {1,
          u"Main Configuration Page",
          u"NICMain",
          {
              subtitle(u"Integrated NIC 1 Port 1", u"NICSubtitle"),
              text(u"MAC Address", u"MacAddr", u"00:1B:21:3C:4D:5E"),
              oneOf(nic::kLinkSpeed, u"Link Speed", u"NICConfigLnkSpeed")
                  .at(kStore, 0x00)
                  .option(u"Auto Negotiated", u"AutoNeg", 0, kDefMfg)
                  .option(u"10 Mbps Half", u"10MbpsHalf", 1)
                  .option(u"10 Mbps Full", u"10MbpsFull", 2)
                  .option(u"100 Mbps Half", u"100MbpsHalf", 3)
                  .option(u"100 Mbps Full", u"100MbpsFull", 4)
                  .option(u"1000 Mbps Full", u"1000MbpsFull", 5)
                  .value(0),
              checkbox(nic::kVLanMode, u"Virtual LAN Mode", u"VLanMode").at(kStore, 0x01).value(0),
              numeric(nic::kVLanId, u"Virtual LAN ID", u"VLanId[ReadOnlyIf:VLanMode=0]", Width::U16)
                  .at(kStore, 0x02)
                  .range(1, 4094, 1)
                  .when(grayOutIf(ideqval(nic::kVLanMode, 0)))
                  .defaultNumber(1)
                  .value(1),
              numeric(nic::kLinkUpDelayTime, u"Link Up Delay Time (s)", u"LinkUpDelayTime", Width::U8)
                  .at(kStore, 0x04)
                  .range(0, 30, 1)
                  .defaultNumber(0)
                  .value(5),
              oneOf(nic::kWakeOnLan, u"Wake On LAN", u"WakeOnLan")
                  .at(kStore, 0x05)
                  .option(u"Disabled", u"Disabled", 0, kDef)
                  .option(u"Enabled", u"Enabled", 1)
                  .value(1),
              oneOf(nic::kOptionRom, u"Option ROM", u"OptionROM")
                  .at(kStore, 0x06)
                  .resetRequired()
                  .option(u"Enabled", u"Enabled", 1, kDefMfg)
                  .option(u"Disabled", u"Disabled", 0)
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
                  .at(kStore, 0x10)
                  .valueText(u"iqn.2024-01.com.example:host1"),
              checkbox(nic::kChapAuth, u"CHAP Authentication", u"ChapAuthEnable").at(kStore, 0x0C).value(1),
              password(nic::kChapSecret, u"CHAP Secret", u"ChapSecret", 12, 16)
                  .at(kStore, 0x50)
                  .help(u"Secret the initiator proves to the target."),
              numeric(nic::kIscsiTargetPort, u"iSCSI Target Port", u"IscsiTargetPort", Width::U16)
                  .at(kStore, 0x0E)
                  .range(1, 65535, 1)
                  .defaultNumber(3260)
                  .value(3260),
              oneOf(nic::kBootToTarget, u"Boot to iSCSI Target", u"BootToTarget")
                  .at(kStore, 0x07)
                  .option(u"Disabled", u"Disabled", 0, kDefMfg)
                  .option(u"Enabled", u"Enabled", 1)
                  .option(u"One Time Disabled", u"OneTimeDisabled", 2)
                  .value(1),
              checkbox(nic::kTgtAsFirstHdd, u"Connect Target as First HDD", u"TgtAsFirstHDD")
                  .at(kStore, 0x08)
                  .checkboxDefaults(false, false)
                  .value(0),
              string(nic::kDhcpVendorId, u"DHCP Vendor ID", u"DhcpVndorID", 0, 32)
                  .at(kStore, 0x80)
                  .defaultText(u"iSCSI")
                  .valueText(u"Sample-iSCSI"),
          }};
}

// ---------------------------------------------------------------- physical disk
// A suppress-if whose two comparisons lost the operator that joins them:
// the expression leaves two values, which the forms processor refuses
// whenever it evaluates the form set that holds it.
ifr::Expr unjoined(const ifr::Expr& first, const ifr::Expr& second) {
  ifr::Bytes code = first.code();
  code.insert(code.end(), second.code().begin(), second.code().end());
  return ifr::Expr(code);
}

FormSetDescription diskFormSet() {
  FormSetDescription fs;
  fs.guid = kDiskFormSetGuid;
  fs.classGuids = {kPlatformSetupClassGuid, kDiskFormSetGuid};
  fs.title = u"Physical Disk 0:1:0 Configuration";
  fs.keyword = u"PhysicalDisk";
  fs.helpText = u"Settings of the physical disk in bay 0.";
  fs.varStores = {{kStore, kDiskConfigStoreGuid, "DiskConfig", 0x10, false, 0}};
  fs.forms = {{1,
               u"Physical Disk Management",
               u"PhysicalDiskMgmt",
               {
                   subtitle(u"Physical Disk 0:1:0", u"PhysicalDiskSubtitle"),
                   text(u"Model", u"DiskModel", u"SATA SSD 960GB"),
                   text(u"Serial Number", u"DiskSerialNumber", u"S4EVNX0M512345"),
                   oneOf(disk::kStatus, u"Status", u"DiskStatus")
                       .at(kStore, 0x00)
                       .readOnly()
                       .option(u"Online", u"Online", 0)
                       .option(u"Ready", u"Ready", 1)
                       .option(u"Failed", u"Failed", 2)
                       .option(u"Rebuilding", u"Rebuilding", 3)
                       .value(1),
                   oneOf(disk::kWriteCache, u"Write Cache", u"DiskWriteCache")
                       .at(kStore, 0x01)
                       .option(u"Default", u"Default", 0, kDefMfg)
                       .option(u"Enabled", u"Enabled", 1)
                       .option(u"Disabled", u"Disabled", 2)
                       .value(2),
                   checkbox(disk::kSmartPolling, u"S.M.A.R.T. Polling", u"SmartPolling")
                       .at(kStore, 0x02)
                       .checkboxDefaults(true, true)
                       .value(1),
                   checkbox(disk::kHotSpare, u"Global Hot Spare", u"GlobalHotSpare[ReadOnlyIf:DiskStatus=Online]")
                       .at(kStore, 0x03)
                       .when(grayOutIf(ideqval(disk::kStatus, 0)))
                       .value(0),
                   numeric(disk::kPowerSaveIdleTime, u"Power Save Idle Time (min)", u"PowerSaveIdleTime", Width::U16)
                       .at(kStore, 0x04)
                       .range(30, 240, 30)
                       .defaultNumber(30)
                       .defaultNumber(60, kMfg)
                       .value(60),
               }}};
  return fs;
}

FormSetDescription diskDiagnosticsFormSet() {
  FormSetDescription fs;
  fs.guid = kDiskDiagnosticsFormSetGuid;
  fs.title = u"Drive Diagnostics";
  fs.keyword = u"DriveDiagnostics";
  fs.helpText = u"Self-tests of the drive.";
  fs.varStores = {{kStore, kDiskDiagnosticsStoreGuid, "DiskDiagnostics", 0x04, false, 0}};
  fs.forms = {{1,
               u"Drive Diagnostics",
               u"DriveDiagMain",
               {
                   subtitle(u"Drive Diagnostics", u"DriveDiagSubtitle"),
                   oneOf(disk::kSelfTestType, u"Self-Test Type", u"DiskSelfTestType")
                       .at(kStore, 0x01)
                       .option(u"None", u"None", 0, kDefMfg)
                       .option(u"Short", u"Short", 1)
                       .option(u"Extended", u"Extended", 2)
                       .value(0),
                   checkbox(disk::kSelfTestAtBoot, u"Self-Test at Boot", u"DiskSelfTestAtBoot")
                       .at(kStore, 0x00)
                       .when(suppressIf(unjoined(ideqval(disk::kSelfTestType, 1), ideqval(disk::kSelfTestType, 2))))
                       .value(0),
               }}};
  return fs;
}

// ---------------------------------------------------------------- Fibre Channel
// The card's driver publishes its prompts in "en-US" only: the names are
// the prompts themselves.
FormSetDescription fcFormSet() {
  FormSetDescription fs;
  fs.guid = kFcFormSetGuid;
  fs.title = u"FC Port 1 Configuration";
  fs.helpText = u"Fibre Channel port settings.";
  fs.varStores = {{kStore, kFcStoreGuid, "FcPortConfig", 0x40, false, 0}};
  fs.forms = {
      {1,
       u"Port Configuration",
       u"",
       {
           subtitle(u"Port 1", u""),
           text(u"World Wide Port Name", u"", u"20:00:00:10:9B:5A:3C:01"),
           oneOf(fc::kPortSpeed, u"Port Speed", u"")
               .at(kStore, 0x00)
               .option(u"Auto", u"", 0, kDefMfg)
               .option(u"8 Gbps", u"", 8)
               .option(u"16 Gbps", u"", 16)
               .option(u"32 Gbps", u"", 32)
               .value(0),
           oneOf(fc::kConnectionMode, u"Connection Mode", u"")
               .at(kStore, 0x01)
               .option(u"Loop Only", u"", 0)
               .option(u"Point to Point Only", u"", 1, kDefMfg)
               .option(u"Loop Preferred", u"", 2)
               .value(1),
           checkbox(fc::kBootFromSan, u"Enable Boot from SAN", u"")
               .at(kStore, 0x02)
               .checkboxDefaults(false, false)
               .value(0),
           // A loop id only matters on a loop.
           numeric(fc::kHardLoopId, u"Hard Loop ID", u"", Width::U8)
               .at(kStore, 0x03)
               .range(0, 125, 1)
               .when(grayOutIf(ideqval(fc::kConnectionMode, 1)))
               .defaultNumber(0)
               .value(0),
           numeric(fc::kLinkDownTimeout, u"Link Down Timeout (s)", u"", Width::U16)
               .at(kStore, 0x04)
               .range(1, 255, 1)
               .defaultNumber(30)
               .defaultNumber(30, kMfg)
               .value(30),
           reference(fc::kBootTargetRef, u"Boot Target Configuration", u"", 2),
       }},
      {2,
       u"Boot Target Configuration",
       u"",
       {
           string(fc::kTargetWwpn, u"Boot Target WWPN", u"", 0, 23)
               .at(kStore, 0x08)
               .valueText(u"50:06:01:60:3C:E0:1A:2B"),
           numeric(fc::kTargetLun, u"Boot LUN", u"", Width::U16).at(kStore, 0x36).range(0, 255, 1).value(0),
       }},
  };
  return fs;
}

// ---------------------------------------------------------------- RAID adapter
FormSetDescription raidFormSet() {
  FormSetDescription fs;
  fs.guid = kRaidFormSetGuid;
  fs.title = u"RAID Controller in Slot 6 Configuration";
  fs.keyword = u"RaidController";
  fs.helpText = u"Controller settings.";
  fs.varStores = {{kStore, kRaidStoreGuid, "RaidControllerConfig", 0x10, false, 0}};
  fs.forms = {{1,
               u"Controller Management",
               u"ControllerMgmt",
               {
                   subtitle(u"Controller Properties", u"ControllerPropertiesSubtitle"),
                   text(u"Firmware Version", u"ControllerFirmwareVersion", u"51.16.0-4076"),
                   oneOf(raid::kControllerMode, u"Controller Mode", u"ControllerMode")
                       .at(kStore, 0x00)
                       .help(u"HBA mode passes the drives through to the operating system.")
                       .resetRequired()
                       .option(u"RAID", u"Raid", 0, kDefMfg)
                       .option(u"HBA", u"Hba", 1)
                       .value(0),
                   oneOf(raid::kBootMode, u"Boot Mode", u"ControllerBootMode")
                       .at(kStore, 0x01)
                       .option(u"Stop on Errors", u"StopOnErrors", 0)
                       .option(u"Pause on Errors", u"PauseOnErrors", 1, kDefMfg)
                       .option(u"Ignore Errors", u"IgnoreErrors", 2)
                       .option(u"Safe Mode on Errors", u"SafeModeOnErrors", 3)
                       .value(1),
                   numeric(raid::kPatrolReadRate, u"Patrol Read Rate (%)", u"PatrolReadRate", Width::U8)
                       .at(kStore, 0x02)
                       .range(0, 100, 1)
                       .defaultNumber(30)
                       .defaultNumber(30, kMfg)
                       .value(30),
                   numeric(raid::kRebuildRate, u"Rebuild Rate (%)", u"RebuildRate", Width::U8)
                       .at(kStore, 0x03)
                       .range(0, 100, 1)
                       .defaultNumber(30)
                       .value(60),
                   checkbox(raid::kAutoConfigure, u"Auto-Configure Unconfigured Drives", u"AutoConfigureDrives")
                       .at(kStore, 0x04)
                       .value(0),
               }}};
  return fs;
}

// Everything but the help of "Controller Mode", which the driver's
// translators have not done yet.
Translation raidFrench() {
  return {
      {u"RAID Controller in Slot 6 Configuration", u"Configuration du contr\u00f4leur RAID de l'emplacement 6"},
      {u"Controller settings.", u"Param\u00e8tres du contr\u00f4leur."},
      {u"Standard Defaults", u"Valeurs par d\u00e9faut standard"},
      {u"Manufacturing Defaults", u"Valeurs par d\u00e9faut de fabrication"},
      {u"Controller Management", u"Gestion du contr\u00f4leur"},
      {u"Controller Properties", u"Propri\u00e9t\u00e9s du contr\u00f4leur"},
      {u"Firmware Version", u"Version du micrologiciel"},
      {u"51.16.0-4076", u"51.16.0-4076"},
      {u"Controller Mode", u"Mode du contr\u00f4leur"},
      {u"RAID", u"RAID"},
      {u"HBA", u"HBA"},
      {u"Boot Mode", u"Mode d'amor\u00e7age"},
      {u"Stop on Errors", u"Arr\u00eat en cas d'erreur"},
      {u"Pause on Errors", u"Pause en cas d'erreur"},
      {u"Ignore Errors", u"Ignorer les erreurs"},
      {u"Safe Mode on Errors", u"Mode sans \u00e9chec en cas d'erreur"},
      {u"Patrol Read Rate (%)", u"Taux de lecture de contr\u00f4le (%)"},
      {u"Rebuild Rate (%)", u"Taux de reconstruction (%)"},
      {u"Auto-Configure Unconfigured Drives", u"Configuration automatique des disques non configur\u00e9s"},
  };
}

}  // namespace

DeviceDescription biosSetupDevice() {
  DeviceDescription d;
  d.fqdd = kBiosFqdd;
  d.description = u"System BIOS Setup";
  d.devicePath = hii::DevicePathBuilder().vendorHardware(kBiosDeviceVendor).build();
  d.packageListGuid = kBiosPackageListGuid;
  d.formSets = {setupMenuFormSet(), biosSettingsFormSet(), bootManagerFormSet()};
  return d;
}

DeviceDescription integratedNicDevice() {
  DeviceDescription d;
  d.fqdd = kNicFqdd;
  d.description = u"Integrated NIC 1 Port 1 Partition 1";
  d.devicePath = hii::DevicePathBuilder()
                     .pciRoot(0)
                     .pci(0x1C, 0)
                     .pci(0, 0)
                     .mac({0x00, 0x1B, 0x21, 0x3C, 0x4D, 0x5E})
                     .build();
  d.packageListGuid = kNicPackageListGuid;
  FormSetDescription fs;
  fs.guid = kNicFormSetGuid;
  fs.title = u"Integrated NIC 1 Port 1 Configuration";
  fs.keyword = u"NICConfig";
  fs.helpText = u"Link, VLAN and iSCSI settings of the port.";
  fs.varStores = {{kStore, kNicConfigStoreGuid, "NicConfig", 0x100, false, 0}};
  fs.forms = {nicMainForm(), nicIscsiForm()};
  d.formSets = {fs};
  return d;
}

DeviceDescription physicalDiskDevice() {
  DeviceDescription d;
  d.fqdd = kDiskFqdd;
  d.description = u"Physical Disk 0:1:0";
  d.devicePath = hii::DevicePathBuilder().pciRoot(0).pci(0x01, 0).pci(0, 0).sata(0, 0xFFFF, 0).build();
  d.packageListGuid = kDiskPackageListGuid;
  d.formSets = {diskFormSet(), diskDiagnosticsFormSet()};
  return d;
}

DeviceDescription fibreChannelDevice() {
  DeviceDescription d;
  d.fqdd = kFcFqdd;
  d.description = u"FC HBA in Slot 2 Port 1";
  d.devicePath = hii::DevicePathBuilder().pciRoot(0).pci(0x02, 0).pci(0, 0).build();
  d.packageListGuid = kFcPackageListGuid;
  d.languages = {"en-US"};
  d.formSets = {fcFormSet()};
  return d;
}

DeviceDescription raidAdapterDevice() {
  DeviceDescription d;
  d.fqdd = kRaidFqdd;
  d.description = u"RAID Controller in Slot 6";
  d.devicePath = hii::DevicePathBuilder().pciRoot(1).pci(0x03, 0).pci(0, 0).build();
  d.packageListGuid = kRaidPackageListGuid;
  d.languages = {"en-US", "fr-FR", "x-UEFI"};
  d.translations = {{"fr-FR", raidFrench()}};
  d.formSets = {raidFormSet()};
  return d;
}

std::vector<DeviceDescription> sampleDevices() {
  return {biosSetupDevice(), integratedNicDevice(), physicalDiskDevice(), fibreChannelDevice(), raidAdapterDevice()};
}

}  // namespace tvl::host::sample
