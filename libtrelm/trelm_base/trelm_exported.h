// trelm_exported.h - marks what the library exports besides the public interface: functions and variables that its
// rooms share and that a program may use by name.
#pragma once

#define TRELM_EXPORTED __attribute__((visibility("default")))
