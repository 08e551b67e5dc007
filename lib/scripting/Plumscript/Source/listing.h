// Listings for people: functions with their source and instructions, classes with their methods.
//
// The debugger and the command line print the same texts, which are made here. All of them end with
// a line end. They may be called on the thread that owns the module.
#pragma once

#include <string>
#include <string_view>

#include "comp_mod.h"
#include "psc.h"

// "Function name(a As Integer) As Void": the header of a function that was passed n arguments.
std::string psFunctionHeader(const psFunction* function, int n);
// "Name(a As Integer, b As String) As Object": one function of an interface.
std::string psSignatureLine(const fundes* function);

// A source line: its number and its text.
std::string psSourceLine(const psLineData& line);
// Every source line of a function, with the instructions it became below it when asked for.
std::string psFunctionListing(const psFunction* function, bool instructions);

// What the name of a class, or "class.interface", provides. False when there is no such thing;
// *text then says so.
bool psMethodsListing(std::string_view name, std::string* text);
