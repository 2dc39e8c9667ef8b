// hostsim_api.h - what the simulated host's shared library lets out: everything is hidden but what carries
// this mark, so that a preloaded simulator never lends its own symbols to the program it serves.
#pragma once

#define HOSTSIM_API __attribute__((visibility("default")))
