// root_layout.h - every path below the root of a simulated host. Append one to the root's own path.
#pragma once

#include <array>

namespace hostsim::layout {

// ---- What the host's programs see at the same path

inline constexpr char kTmp[] = "/tmp";
inline constexpr char kVarTmp[] = "/var/tmp";
// The legacy driver's node and its directory. Both are made from the model whenever a program looks.
inline constexpr char kNodeDirectory[] = "/dev/char/vmkdriver";
inline constexpr char kLegacyNode[] = "/dev/char/vmkdriver/dorfc";
// The directory of the legacy driver's link-state files, made from the model too.
inline constexpr char kLinkStates[] = "/proc/scsi/dorfc";

// ---- The simulator's own

// Contents of LUNs, a directory each. They stay when the host ends.
inline constexpr char kLuns[] = "/luns";
// Everything else.
inline constexpr char kOwn[] = "/.hostsim";
// Says that the directory is a host's root, and whether it goes with the host. See root.cpp.
inline constexpr char kMark[] = "/.hostsim/mark";
// Locks: held while a host is made or ended; shared by all who run it.
inline constexpr char kTurn[] = "/.hostsim/turn";
inline constexpr char kUsers[] = "/.hostsim/users";
// The file that all processes of the host map.
inline constexpr char kState[] = "/.hostsim/state";
// Copy of the last host file that had no mistake.
inline constexpr char kLastSound[] = "/.hostsim/last-sound.json";
// New contents of a driver's file, until they take the place of the old; a thread id follows.
inline constexpr char kDraft[] = "/.hostsim/draft-";
// Link to the preload object, for a preload list that cannot hold the object's own path.
inline constexpr char kPreload[] = "/.hostsim/preload.so";
// The host's own commands.
inline constexpr char kCommands[] = "/.hostsim/bin";
inline constexpr char kListing[] = "/.hostsim/bin/lsof";

// What stays in kOwn when a host ends whose root is kept.
inline constexpr std::array<const char*, 3> kKept{kMark, kTurn, kUsers};

}  // namespace hostsim::layout
