// trelm_exported.h - marks exported internals: functions and variables that the rooms share and that a
// program may use by name.
#pragma once

#define TRELM_EXPORTED __attribute__((visibility("default")))
