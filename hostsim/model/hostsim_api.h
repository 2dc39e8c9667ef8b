// hostsim_api.h - marks what the simulated host's shared library exports. Everything else is hidden, so that
// the symbols of a preloaded simulator never replace those of the program.
#pragma once

#define HOSTSIM_API __attribute__((visibility("default")))
