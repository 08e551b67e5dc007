// The order fixes each class's index, which compiled scripts refer to: a class is only ever added
// at the place that the catalogue of classes gives it.
#include "lib/scripting/CommonAPI/Include/class_registry.h"

#include "lib/scripting/CommonAPI/Include/console_object.h"
#include "lib/scripting/CommonAPI/Include/device_objects.h"
#include "lib/scripting/CommonAPI/Include/file_objects.h"
#include "lib/scripting/CommonAPI/Include/registry_objects.h"
#include "lib/scripting/CommonAPI/Include/stream_events.h"
#include "lib/scripting/CommonAPI/Include/time_objects.h"

namespace {

// clang-format off
constexpr pscClass* kClasses[] = {
    &DeviceInfoInstance::sm_class,
    &RegistryInstance::sm_class,
    &RegistrySectionInstance::sm_class,
    &NetworkTimeEventInstance::sm_class,
    &SystemTimeInstance::sm_class,
    &DateTimeInstance::sm_class,
    &TimerInstance::sm_class,
    &TimerEventInstance::sm_class,
    &ReadFileInstance::sm_class,
    &ReadWriteFileInstance::sm_class,
    &CreateFileInstance::sm_class,
    &AppendFileInstance::sm_class,
    &TimespanInstance::sm_class,
    &StreamByteEventInstance::sm_class,
    &StreamLineEventInstance::sm_class,
    &StreamEndEventInstance::sm_class,
    &StreamConnectResultEventInstance::sm_class,
    &StreamByteArrayEventInstance::sm_class,
    &DurationInstance::sm_class,
    &SystemLogInstance::sm_class,
    &ConsoleInstance::sm_class,
};
// clang-format on

}  // namespace

void KelvoRegisterClasses() {
  for (pscClass* cl : kClasses) pscRegisterClass(cl);
}
