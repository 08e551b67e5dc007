// Texts from the records that everything else works with: line records, functions, descriptors.
// There is no second description of anything.
#include "listing.h"

#include <cstdio>

#include "disasm.h"

namespace {

// "a As Integer, b As String": descriptors do not name their parameters, so letters do.
void appendParameters(const fundes* function, std::string* text) {
  const int n = function->nargs <= kPsMaxParameters ? function->nargs : 0;  // variadic: none known
  for (int i = 0; i < n; i++) {
    if (i > 0) *text += ", ";
    *text += static_cast<char>('a' + i);
    *text += " As ";
    *text += psTypeDeclarationName(pscGetParamType(function, i));
  }
}

void appendInterface(const psInterface& interface, const char* indent, std::string* text) {
  for (const fundes* function = interface.functions; function->name != nullptr; function++) {
    *text += indent;
    *text += psSignatureLine(function);
  }
}

bool listClass(const std::string& name, std::string* text) {
  const pscClass* cl = pscFindClassByName(name.c_str());
  if (cl == nullptr) {
    *text = name + ": class not found\n";
    return false;
  }
  if (cl->init_des != nullptr) {
    *text += std::string("CreateObject(\"") + cl->ln_Name + "\", ";
    appendParameters(cl->init_des, text);
    *text += ") As Object\n";
  }
  *text += std::string(cl->ln_Name) + " provides:\n";
  for (const psInterface& interface : cl->interfaces) {
    *text += std::string(" Interface ") + interface.name + ":\n";
    appendInterface(interface, "  ", text);
  }
  return true;
}

bool listInterface(const std::string& class_name, const std::string& interface_name,
                   std::string* text) {
  if (class_name.empty()) {
    *text = "class not specified\n";
    return false;
  }
  const pscClass* cl = pscFindClassByName(class_name.c_str());
  if (cl == nullptr) {
    *text = class_name + ": class not found\n";
    return false;
  }
  const psInterface* interface = pscClassInterface(cl, interface_name.c_str());
  if (interface == nullptr) {
    *text = interface_name + ": interface not implemented by " + cl->ln_Name + "\n";
    return false;
  }
  *text += std::string(cl->ln_Name) + "." + interface->name + " provides:\n";
  appendInterface(*interface, " ", text);
  return true;
}

}  // namespace

std::string psFunctionHeader(const psFunction* function, int n) {
  std::string text = "Function " + function->name + "(";
  for (int i = 0; i < n && i < function->parameters(); i++) {
    if (i > 0) text += ", ";
    text += GetVarByIndex(function, static_cast<unsigned>(i)).name;
    text += " As ";
    text += psTypeDeclarationName(function->proto[static_cast<size_t>(i)]);
  }
  text += ") As ";
  text += psTypeDeclarationName(function->proto.back());
  text += '\n';
  return text;
}

std::string psSignatureLine(const fundes* function) {
  std::string text = function->name;
  text += '(';
  appendParameters(function, &text);
  text += ')';
  if (function->rtype != psVoid) {
    text += " As ";
    text += psTypeDeclarationName(function->rtype);
  }
  text += '\n';
  return text;
}

std::string psSourceLine(const psLineData& line) {
  char number[16];
  std::snprintf(number, sizeof number, "%03d: ", line.line_num);
  std::string text = number + line.srccpy;
  if (!text.ends_with('\n')) text += '\n';
  return text;
}

std::string psFunctionListing(const psFunction* function, bool instructions) {
  std::string text;
  for (const psLineData& line : function->module->lines) {
    if (line.function != function) continue;
    text += psSourceLine(line);
    if (!instructions) continue;
    if (line.pc_last < 0) text += "<no disassm>\n";
    for (uint32_t pc = line.pc_start;
         line.pc_last >= 0 && pc <= static_cast<uint32_t>(line.pc_last);) {
      pc = DisasmStmt(function, pc, &text);
    }
  }
  return text;
}

bool psMethodsListing(std::string_view name, std::string* text) {
  text->clear();
  const size_t dot = name.find('.');
  if (dot == std::string_view::npos) return listClass(std::string(name), text);
  return listInterface(std::string(name.substr(0, dot)), std::string(name.substr(dot + 1)), text);
}
