// root_layout.h - every path below the root of a simulated host, to be appended to the path of the root.
#pragma once

#include <array>

namespace hostsim::layout {

// ---- What the host's programs see at the same path

inline constexpr char kTmp[] = "/tmp";
inline constexpr char kVarTmp[] = "/var/tmp";
// The legacy driver's node and its directory. The node is created or removed as the model says.
inline constexpr char kNodeDirectory[] = "/dev/char/vmkdriver";
inline constexpr char kLegacyNode[] = "/dev/char/vmkdriver/dorfc";
// The directory of the legacy driver's link-state files, which are written from the model.
inline constexpr char kLinkStates[] = "/proc/scsi/dorfc";

// ---- The simulator's own

// Contents of LUNs, one directory each. They stay when the host ends.
inline constexpr char kLuns[] = "/luns";
// Everything else.
inline constexpr char kOwn[] = "/.hostsim";
// Marks the directory as a host's root, temporary or kept.
inline constexpr char kMark[] = "/.hostsim/mark";
// Locks: one is held while a host is created or ended, the other is shared by all launchers of the host.
inline constexpr char kTurn[] = "/.hostsim/turn";
inline constexpr char kUsers[] = "/.hostsim/users";
// The file that all processes of the host map.
inline constexpr char kState[] = "/.hostsim/state";
// Copy of the last sound version of the host file.
inline constexpr char kLastSound[] = "/.hostsim/last-sound.json";
// A file or link that is being written; a thread id follows. It is renamed when it is complete.
inline constexpr char kDraft[] = "/.hostsim/draft-";
// Link to the preload object, for LD_PRELOAD if the object's own path has a space or a colon.
inline constexpr char kPreload[] = "/.hostsim/preload.so";
// Link to the directory of the launcher, for PATH if that directory's own path has a colon.
inline constexpr char kPrograms[] = "/.hostsim/programs";
// The host's own commands.
inline constexpr char kCommands[] = "/.hostsim/bin";
inline constexpr char kListing[] = "/.hostsim/bin/lsof";

// What stays in kOwn when the host ends and the root is kept.
inline constexpr std::array<const char*, 3> kKept{kMark, kTurn, kUsers};

}  // namespace hostsim::layout
