// The natively written script classes.
#pragma once

// Registers them, in their fixed order: after the core classes, before the first script is
// compiled. Once for every time the core classes are registered.
void KelvoRegisterClasses();
