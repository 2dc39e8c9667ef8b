/*
 * trelm_mgmt.h - the public interface of libtrelm, a management library for the FCoE (Fibre Channel over
 * Ethernet) ports of converged network adapters on ESXi hosts. Compiles as C99 and as C++.
 *
 * Conventions:
 *
 *  1. A program calls TRELM_LoadLibrary, counts ports with TRELM_GetPortCount, opens a port by its instance
 *     number (0 to count - 1) with TRELM_OpenAdapter, works with the handle, closes it with
 *     TRELM_CloseAdapter and ends with TRELM_FreeLibrary. The process must run as root on an ESXi host.
 *  2. Every function returns a status: TRELM_STATUS_OK or a failure, TRELM_STATUS_BASE plus a small number.
 *     TRELM_GetVersion is the one exception. TRELM_OpenAdapter and TRELM_CloseAdapter may also return a
 *     system error number. "A driver failure" below is any of the codes that TRELM_STATUS_DRIVER_ERROR
 *     explains; 0x6000000A among them also says that the request to a native driver could not be allocated.
 *  3. The caller owns every record and array that it passes. The library keeps no reference to them,
 *     allocates nothing that the caller must free, and writes only the fields that a function's text names:
 *     all other bytes keep what the caller put there. Clear a record before the call.
 *  4. Records are packed and little-endian; their sizes and offsets are part of the interface. Each begins
 *     with `Version`, set by the caller and never changed by the library; 2 asks for the fields marked
 *     "version 2".
 *  5. Text fields are fixed-width byte arrays copied whole. They are not terminated when the text fills them.
 *  6. World-wide names and MAC addresses are byte arrays, most significant byte first.
 *  7. A port is addressed by a handle and an NPIV index. A physical port and its virtual (NPIV) ports share
 *     the handle of the physical port; the index is the one that the driver gave each of them (NpivIndex of
 *     TRELM_VNPORT_INFO), the physical port's own included. Most drivers count from 0. To find the virtual
 *     ports without asking a driver, try indexes until NpivCount of TRELM_FCOE_INFO plus one are found:
 *     TRELM_GetTgtInfo with a capacity of 0 returns TRELM_STATUS_FAILED where there is no such port, and
 *     another status where there is.
 *  8. Every function may be called from any thread at any time. The results are those of some sequential
 *     order of the calls. A call that waits in a driver delays no other call, with one exception: the last
 *     close of a legacy driver's port waits for the calls that use the port, and calls for that port wait for
 *     the close. TRELM_FreeLibrary waits until all calls have returned; calls that begin meanwhile wait for
 *     it. A thread that is cancelled inside a function ends after it. A signal handler may interrupt a
 *     function of this library and call another one in the same thread. If that one would have to wait for
 *     the interrupted function, it returns TRELM_STATUS_FAILED instead.
 *  9. Several processes may have the library loaded. A forked child may use the ports that its parent had
 *     open and may free the library; it counts as a user of the library after a load of its own.
 * 10. Diagnostics are off unless the environment variable TRELM_API_DEBUG holds a hexadecimal flag word:
 *     1 append lines to /var/tmp/libtrelm.log, 2 trace lines, 4 error lines. Lines go to standard error.
 */
#ifndef TRELM_MGMT_H
#define TRELM_MGMT_H

#include <stdint.h>

#if defined(__GNUC__)
#define TRELM_API __attribute__((visibility("default")))
#else
#define TRELM_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Return codes ---- */

#define TRELM_STATUS_OK 0x00000000u
/* All failures are TRELM_STATUS_BASE plus a small number. */
#define TRELM_STATUS_BASE 0x60000000u
/*
 * General failure: not loaded, load or unload failed, no port for a handle and NPIV index, open or close
 * failed. A driver failure with status 1 has the same code. To tell it from a missing port, call
 * TRELM_GetTgtInfo with a capacity of 0: that does not ask the driver.
 */
#define TRELM_STATUS_FAILED 0x60000001u
/* A required pointer is null or an argument is out of range. */
#define TRELM_STATUS_INVALID_PARAMETER 0x60000004u
/* TRELM_OpenAdapter: no physical port has that instance number. */
#define TRELM_STATUS_INVALID_INSTANCE 0x60000007u
/*
 * The caller's array is too small; the count argument now holds the number of elements needed. A driver
 * failure with status 9 has the same code: the count argument is then no larger than the array. A loop that
 * enlarges its array ends there.
 */
#define TRELM_STATUS_INSUFFICIENT_BUFFER 0x60000009u
/* A work buffer could not be allocated. */
#define TRELM_STATUS_NO_MEMORY 0x6000000Au
/*
 * A driver request failed and the driver gave no status from 1 to 13. A driver status from 1 to 13 is
 * returned as TRELM_STATUS_BASE plus that status, so 0x6000000D stands for driver status 13, a device that is
 * offline.
 */
#define TRELM_STATUS_DRIVER_ERROR 0x6000000Bu

/* What TRELM_GetVersion returns: major, minor, build, 0, one byte each, major in the top byte. */
#define TRELM_VERSION_NUMBER 0x05000200u

/* ---- Values of record fields ---- */

/* TRELM_VNPORT_INFO.PortState */
#define TRELM_PORTSTATE_LINKDOWN 4u
#define TRELM_PORTSTATE_ONLINE 8u
#define TRELM_PORTSTATE_OTHER 0x80000000u

/* TRELM_VNPORT_INFO.PortType */
#define TRELM_PORTTYPE_PHYSICAL 0u
#define TRELM_PORTTYPE_NPIV 1u

/* TRELM_SCSI_CMND.Direction; any other value means that the command has no data phase. */
#define TRELM_SCSI_DATA_IN 1u  /* device to caller */
#define TRELM_SCSI_DATA_OUT 2u /* caller to device */

/* Largest data phase in bytes of one command to a port of a native driver. */
#define TRELM_SCSI_MAX_NATIVE_DATA 262144u
/* Highest target number plus one. */
#define TRELM_MAX_TARGETS 128u

/* ---- Records ---- */

#pragma pack(push, 1)

/* An adapter and its physical port as they were found at load. 508 bytes. Filled by TRELM_GetFcoeInfo. */
typedef struct TRELM_FCOE_INFO {
    uint32_t Version;           /* in: 2 for the version 2 fields; a caller of version 1 may pass 460 bytes */
    uint8_t ModelName[32];      /* text */
    uint8_t ModelDesc[128];     /* text */
    uint8_t DriverVersion[32];  /* text */
    uint8_t DriverDate[32];     /* text */
    uint8_t DriverName[16];     /* text */
    uint8_t DriverLoaded;       /* 1: found through a loaded driver */
    uint8_t MAC[6];             /* Ethernet address of the port */
    uint8_t WWNN[8];            /* world-wide node name */
    uint8_t WWPN[8];            /* world-wide port name */
    uint32_t MTU;               /* bytes */
    uint8_t FCFSelectionMethod; /* not written */
    uint8_t FriendlyName[128];  /* not written */
    uint32_t VlanID;            /* FCoE VLAN */
    uint16_t PciBusNum;         /* PCI location: bus, */
    uint16_t PciDeviceNum;      /* device, */
    uint16_t PciFunctionNum;    /* function; PciDomainNum below */
    uint16_t VendorID;          /* PCI ids */
    uint16_t DeviceID;
    uint16_t SubVendorID;
    uint16_t SubSystemID;
    uint16_t PciDomainNum;  /* PCI domain (segment) */
    uint16_t PciRevision;   /* PCI revision id */
    uint16_t PhyPortNum;    /* number of the port on its adapter, from 1 */
    uint8_t FWVersion[32];  /* text, firmware */
    uint32_t NpivCount;     /* virtual ports on this physical port */
    uint32_t PCIESpeed;     /* version 2: link rate in tenths of GT/s: 25, 50, 80; 0 unknown */
    uint32_t PCIEWidth;     /* version 2: 3 x1, 4 x2, 5 x4, 6 x8, 8 x16, 9 x32; 0 any other width */
    uint32_t ChipRevId;     /* version 2: chip revision; 0 where the driver has none */
    uint32_t MediaType;     /* version 2: always 4 */
    uint8_t MFWVersion[32]; /* version 2, kron family only: text, management firmware, "08.37.30.00" */
} TRELM_FCOE_INFO;

/*
 * A physical or virtual port. 168 bytes. Filled by TRELM_GetVNPortInfo.
 *
 * The driver is asked for the fields marked "live", and for those of the FCF if the port had one at load. All
 * other fields, FcfCount among them, are those of the load: a later change of fabric, VLAN or names shows
 * only after TRELM_FreeLibrary and a new load.
 *
 * Speeds are bits as drivers report them: 0x1 1 Gbit/s, 0x2 2, 0x8 4, 0x10 8, 0x4 10, 0x20 16, 0x80 20,
 * 0x800 25, 0x40 32, 0x100 40, 0x200 50, 0x400 100.
 */
typedef struct TRELM_VNPORT_INFO {
    uint32_t Version;            /* in: 2 for the version 2 field; a caller of version 1 may pass 136 bytes */
    uint8_t WWNN[8];             /* world-wide node name */
    uint8_t WWPN[8];             /* world-wide port name */
    uint8_t ParentWWPN[8];       /* of a virtual port's physical port; a physical port's own */
    uint8_t NPIVTag[16];         /* not written */
    uint8_t FPMAMAC[6];          /* not written */
    uint8_t FabricName[8];       /* of the FCF; zeros without one, like the other fields of the FCF */
    uint8_t FcfMAC[6];           /* of the FCF */
    uint8_t FcfWWNN[8];          /* not written */
    uint8_t FcfWWPN[8];          /* not written */
    uint32_t PortFCID;           /* live: Fibre Channel port identifier, 24 bits */
    uint32_t FCMap;              /* of the FCF: FC-MAP, 24 bits */
    uint16_t FabricVlan;         /* FCoE VLAN */
    uint8_t FabricPriority;      /* of the FCF */
    uint8_t PortType;            /* TRELM_PORTTYPE_* */
    uint32_t KeepAliveTimeout;   /* of the FCF, in the driver's unit */
    uint64_t PortSpeed;          /* live: one bit; 0 unknown */
    uint8_t SwitchName[8];       /* of the FCF */
    uint32_t PortState;          /* live: TRELM_PORTSTATE_* */
    uint64_t PortSupportedSpeed; /* live: the bits of all speeds */
    uint32_t TgtCount;           /* live: SCSI targets that the port sees */
    uint32_t FcfCount;           /* FCFs that the port knows */
    uint32_t NpivIndex;          /* selects this port together with the handle */
    uint8_t HbaName[32];         /* version 2: text, the driver's name for the adapter, such as "vmhba2" */
} TRELM_VNPORT_INFO;

/*
 * The counters of a port as its driver keeps them. 244 bytes. Filled by TRELM_GetPortStats.
 *
 * The driver may clear a counter at any time: a counter that is less than before has started again. Counters
 * without another unit count events.
 */
typedef struct TRELM_PORT_STATS {
    uint32_t Version;                   /* neither read nor written */
    uint64_t RxFCoEFrames;              /* FCoE frames received */
    uint64_t RxFCoEBytes;               /* bytes of them */
    uint64_t RxFCPFrames;               /* frames of SCSI (FCP) among them */
    uint64_t TxFCoEFrames;              /* FCoE frames sent */
    uint64_t TxFCoEBytes;               /* bytes of them */
    uint64_t TxFCPFrames;               /* frames of SCSI (FCP) among them */
    uint64_t FCoEDropedFrames;          /* FCoE frames dropped */
    uint64_t SequencesDropped;          /* FC sequences dropped */
    uint64_t FCCRCErrorFrames;          /* frames with a wrong FC CRC */
    uint64_t WrongFCoEVersionFrames;    /* frames of an unknown FCoE version */
    uint64_t EOFAFrames;                /* frames that the sender aborted (EOFa) */
    uint64_t MissingFrames;             /* frames missing from a sequence */
    uint64_t SequenceTimeouts;          /* sequences that were not completed in time */
    uint64_t ReadRequests;              /* SCSI commands that read, */
    uint64_t WriteRequests;             /* that write, */
    uint64_t ControlRequests;           /* and that do neither */
    uint64_t ReadMegabytes;             /* data read, in megabytes as the driver counts them */
    uint64_t WriteMegabytes;            /* data written, likewise */
    uint64_t FIPVlanNegotiations;       /* FIP: VLAN discoveries */
    uint64_t FIPFabricDiscoveries;      /* FIP: FCF discoveries */
    uint64_t FLOGICount;                /* fabric logins of the physical port */
    uint64_t FDISCCount;                /* fabric logins of virtual ports */
    uint64_t ULPTOVExpirations;         /* expired timers of the upper layer (ULP_TOV) */
    uint64_t RECExpirations;            /* expired timers of read exchange concise (REC_TOV) */
    uint64_t ABTSCount;                 /* exchanges aborted (ABTS) */
    uint64_t SRRCount;                  /* sequence retransmission requests */
    uint64_t ResetLUNCount;             /* LUN resets */
    uint64_t ResetTargetCount;          /* target resets */
    uint64_t SessionLevelRecoveryCount; /* recoveries of a session */
    uint64_t LinkFailures;              /* failures of the link */
} TRELM_PORT_STATS;

/* One SCSI command. 292 bytes. Taken by TRELM_SendScsiCommand, which writes only Sense. */
typedef struct TRELM_SCSI_CMND {
    uint32_t Version;       /* neither read nor written */
    uint32_t ScsiLunNumExt; /* upper half of the LUN, see TRELM_LUN_INFO */
    uint32_t ScsiTgtNum;    /* target number, from TRELM_TGT_INFO */
    uint32_t ScsiLunNum;    /* lower half of the LUN */
    uint8_t Direction;    /* TRELM_SCSI_DATA_IN, TRELM_SCSI_DATA_OUT, or any other value for no data phase */
    uint8_t CDBLength;    /* valid bytes of CDB, at most 16 */
    uint8_t CDB[16];      /* command descriptor block */
    uint16_t SenseLength; /* bytes of sense data wanted; above 256 is taken as 256 */
    uint8_t Sense[256];   /* out: sense data */
} TRELM_SCSI_CMND;

/* A SCSI target. 34 bytes, in arrays of every version. Filled by TRELM_GetTgtInfo. */
typedef struct TRELM_TGT_INFO {
    uint32_t Version;    /* neither read nor written */
    uint32_t ScsiTgtNum; /* 0 to 127; numbers may have gaps */
    uint8_t WWNN[8];     /* world-wide node name */
    uint8_t WWPN[8];     /* world-wide port name */
    uint8_t PortID[4];   /* Fibre Channel address, most significant byte first: 00, domain, area, port */
    uint16_t PortState;  /* as the driver reports it */
    uint32_t LunCount;   /* as REPORT LUNS counts them; 0 when the target did not answer */
} TRELM_TGT_INFO;

/*
 * A LUN. 217 bytes in version 2; 213 in earlier ones, which lack the last field. Filled by TRELM_GetLunInfo.
 * Arrays of either version have elements of that size: TRELM_LUN_INFO_STRIDE.
 *
 * The 8 bytes b0 to b7 of a LUN as REPORT LUNS gives them are two numbers here: ScsiLunNum is b2 b3 b0 b1 and
 * ScsiLunNumExt is b6 b7 b4 b5, most significant byte first; a single-level LUN is thus its plain number.
 */
typedef struct TRELM_LUN_INFO {
    uint32_t Version;            /* in: that of the first element decides the layout of the whole array */
    uint32_t ScsiLunNum;         /* lower half of the LUN */
    uint8_t DeviceType;          /* INQUIRY byte 0: peripheral qualifier and device type */
    uint64_t Capacity;           /* bytes; 0: not reported, for example because of a pending UNIT ATTENTION */
    uint8_t VendorName[16];      /* text; bytes 8 to 15 not written */
    uint8_t ProductName[32];     /* text; bytes 16 to 31 not written */
    uint8_t ProductRevision[16]; /* text; bytes 4 to 15 not written */
    uint8_t DeviceName[32];      /* not written */
    uint8_t VolumeName[32];      /* not written */
    uint8_t MountPath[64];       /* not written */
    uint32_t PhysicalDrive;      /* not written */
    uint32_t ScsiLunNumExt;      /* version 2: upper half of the LUN */
} TRELM_LUN_INFO;

#pragma pack(pop)

/* Bytes from one element of a TRELM_LUN_INFO array to the next, by the Version of its first element. */
#define TRELM_LUN_INFO_STRIDE(version) ((version) == 2u ? 217u : 213u)

/* ---- Library ---- */

/* 128 bytes, zero-padded: names the library and its version. */
extern TRELM_API const char trelm_version_description[128];

/*
 * Finds the FCoE ports of the host and joins the processes that have the library loaded. Ports that appear
 * later show only after TRELM_FreeLibrary and a new load. The function may wait for another process that is
 * loading or freeing the library.
 *
 * Loads are not counted: a load of a loaded library does nothing, and one TRELM_FreeLibrary undoes them all.
 *
 * Returns TRELM_STATUS_OK, also when the library is loaded already, or TRELM_STATUS_FAILED: not root, not an
 * ESXi host, or the database shared between processes cannot be set up. If no port is found, the library
 * stays unloaded. The result is then TRELM_STATUS_OK or TRELM_STATUS_FAILED, depending on which drivers
 * answered; TRELM_GetPortCount fails in both cases.
 */
TRELM_API uint32_t TRELM_LoadLibrary(void);

/*
 * Closes every open port of the process, whoever opened it, leaves the shared database and forgets all ports;
 * every handle becomes invalid. Safe at any time and any number of times.
 *
 * To find out whether this is the last process that has the library loaded, the function runs a shell
 * pipeline over the process listing of the host (popen). Meanwhile other processes that load or free the
 * library wait.
 *
 * Returns TRELM_STATUS_OK. TRELM_STATUS_FAILED is reserved for a shared database that cannot be closed; the
 * library is unloaded in that case too.
 */
TRELM_API uint32_t TRELM_FreeLibrary(void);

/*
 * Copies the version text with its terminating zero, 13 bytes in all, to pVersion. If VersionSize is less,
 * the text is cut and still terminated; with 0 nothing is written. pVersion may be null. Works in every
 * state. Always returns TRELM_VERSION_NUMBER.
 */
TRELM_API uint32_t TRELM_GetVersion(uint8_t* pVersion, uint32_t VersionSize);

/*
 * Stores the number of physical FCoE ports; virtual ports are not counted. Instance numbers run from 0 to one
 * less. Returns TRELM_STATUS_OK, TRELM_STATUS_FAILED (not loaded, or no port) or, on a loaded library,
 * TRELM_STATUS_INVALID_PARAMETER (null pointer).
 */
TRELM_API uint32_t TRELM_GetPortCount(uint32_t* pPortCount);

/* ---- Handles ---- */

/*
 * Opens a physical port and stores its handle, which is never 0. Opening an open port returns the same
 * handle; each open needs its own close. Reads TRELM_API_DEBUG again.
 *
 * Returns TRELM_STATUS_OK; TRELM_STATUS_INVALID_PARAMETER (null Handle); TRELM_STATUS_FAILED (not loaded, or
 * the port cannot be opened); TRELM_STATUS_INVALID_INSTANCE; or the system error number of the failed open of
 * a legacy driver's character node.
 */
TRELM_API uint32_t TRELM_OpenAdapter(uint32_t Instance, uint32_t* Handle);

/*
 * Undoes one open. The handle becomes invalid when no open is left. Returns TRELM_STATUS_OK,
 * TRELM_STATUS_FAILED (unknown handle), or the system error number of a failed close of a legacy driver's
 * character node, which leaves the port open.
 */
TRELM_API uint32_t TRELM_CloseAdapter(uint32_t Handle);

/* ---- Information ---- */

/*
 * Fills *pFcoeInfo with what was found at load. The driver is not asked.
 * Returns TRELM_STATUS_OK, TRELM_STATUS_FAILED (unknown handle) or TRELM_STATUS_INVALID_PARAMETER (null
 * record).
 */
TRELM_API uint32_t TRELM_GetFcoeInfo(uint32_t Handle, TRELM_FCOE_INFO* pFcoeInfo);

/*
 * Asks the driver for the state of the port and of its FCF, remembers the target count for TRELM_GetTgtInfo
 * and fills *pVNPortInfo. On failure the record is untouched. The target count is remembered even if the FCF
 * could not be read afterwards. Returns TRELM_STATUS_OK, TRELM_STATUS_INVALID_PARAMETER (null
 * record), TRELM_STATUS_FAILED (no such port) or a driver failure.
 */
TRELM_API uint32_t TRELM_GetVNPortInfo(uint32_t Handle, uint32_t NpivIndex, TRELM_VNPORT_INFO* pVNPortInfo);

/*
 * Asks the driver for the counters of the port and passes them on unchanged. On failure the record is
 * untouched. Returns TRELM_STATUS_OK, TRELM_STATUS_INVALID_PARAMETER (null record), TRELM_STATUS_FAILED (no
 * such port), TRELM_STATUS_NO_MEMORY or a driver failure.
 */
TRELM_API uint32_t TRELM_GetPortStats(uint32_t Handle, uint32_t NpivIndex, TRELM_PORT_STATS* pStats);

/* ---- SCSI ---- */

/*
 * Sends one SCSI command to a LUN behind the port and waits for it. *pDataLen bytes move between pData and
 * the device in the direction that the record names. Without a data phase both pointers are ignored.
 * *pDataLen is never written: the caller must see from the data how much of a read arrived.
 *
 * Sense receives at most SenseLength bytes after every attempt to send the command. If a native driver fails,
 * they are zeros, and pData is untouched. The library does not interpret sense data: after a CHECK CONDITION
 * the function returns TRELM_STATUS_OK, and the caller must look at the sense data.
 *
 * Returns TRELM_STATUS_OK; TRELM_STATUS_INVALID_PARAMETER (null record, CDBLength above 16, a data phase with
 * null pDataLen or with null pData and a length, more than TRELM_SCSI_MAX_NATIVE_DATA bytes to a native
 * driver); TRELM_STATUS_FAILED (no such port); TRELM_STATUS_NO_MEMORY; or a driver failure.
 */
TRELM_API uint32_t TRELM_SendScsiCommand(uint32_t Handle, uint32_t NpivIndex, TRELM_SCSI_CMND* pScsiCmnd,
                                         uint32_t* pDataLen, uint8_t* pData);

/*
 * Lists the SCSI targets of the port. *pTgtInfo is the caller's array, *pTgtCount its capacity in elements.
 * The number of targets is the one that TRELM_GetVNPortInfo last saw, so call that first.
 *
 * *pTgtCount is written in two cases: no targets (TRELM_STATUS_OK and 0) and too small an array
 * (TRELM_STATUS_INSUFFICIENT_BUFFER and the number needed). A capacity of 0 may be passed to ask for the
 * number. Targets that are offline are left out, so fewer elements may be filled than were announced, and
 * *pTgtCount does not report how many. Clear the array first: an element whose WWPN is still zero was not
 * filled.
 *
 * Returns also TRELM_STATUS_INVALID_PARAMETER (null pTgtCount; no array where one is needed),
 * TRELM_STATUS_FAILED (no such port), TRELM_STATUS_NO_MEMORY or a driver failure, which leaves the elements
 * filled so far.
 */
TRELM_API uint32_t TRELM_GetTgtInfo(uint32_t Handle, uint32_t NpivIndex, uint32_t* pTgtCount,
                                    TRELM_TGT_INFO** pTgtInfo);

/*
 * Lists the LUNs of a target and describes each with INQUIRY and READ CAPACITY. *pLunInfo is the caller's
 * array of TRELM_LUN_INFO_STRIDE bytes an element, *pLunCount its capacity in elements, at least 1; the
 * Version of the first element selects the layout. At most 2047 LUNs are listed.
 *
 * *pLunCount is written in one case: too small an array (TRELM_STATUS_INSUFFICIENT_BUFFER and the number
 * needed). On success an element was filled for every LUN of the target, but the function does not report
 * their number. To count them, put a value that no LUN has into each element before the call, such as all
 * ones in ScsiLunNum and ScsiLunNumExt.
 *
 * Returns also TRELM_STATUS_INVALID_PARAMETER (target above 127, capacity 0, null pointer),
 * TRELM_STATUS_NO_MEMORY, or what TRELM_SendScsiCommand returned for the command that failed
 * (TRELM_STATUS_FAILED: no such port); elements filled so far stay filled.
 */
TRELM_API uint32_t TRELM_GetLunInfo(uint32_t Handle, uint32_t NpivIndex, uint32_t ScsiTgtNum,
                                    uint32_t* pLunCount, TRELM_LUN_INFO** pLunInfo);

#ifdef __cplusplus
}
#endif

#endif
