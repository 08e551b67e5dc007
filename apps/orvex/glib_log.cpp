#include "apps/orvex/glib_log.h"

#include <glib.h>

#include "lib/platform/log.h"

namespace {

void OnMessage(const gchar* domain, GLogLevelFlags, const gchar* message, gpointer) {
  lattix::Log("{}: {}\n", domain != nullptr ? domain : "GLib", message != nullptr ? message : "");
}

}  // namespace

void RouteGlibLog() { g_log_set_default_handler(OnMessage, nullptr); }
