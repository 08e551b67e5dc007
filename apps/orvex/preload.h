// The libraries that the loader put into this process ahead of all others.
#pragma once

#include <string_view>

// Takes every element that contains the name out of LD_PRELOAD, so that child processes do not
// inherit the allocator that the player itself was started with. What is left is joined by colons;
// a variable without the name stays exactly as it is. Called while no other thread runs.
void StripPreload(std::string_view name);
