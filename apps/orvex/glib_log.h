// Messages of libraries that log through GLib.
#pragma once

// Makes them the player's own diagnostics: one line each, with the library's domain in front.
void RouteGlibLog();
