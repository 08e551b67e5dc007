// Messages of libraries that log through GLib.
#pragma once

// Makes them the player's own diagnostics: one line each, with the library's domain in front.
// Called once, before another thread runs; lines may then come from any thread.
void RouteGlibLog();
