// Script classes made for the tests, in a domain of their own.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "lib/scripting/CommonAPI/Include/class_registry.h"
#include "lib/scripting/CommonAPI/Include/interface_mixins.h"
#include "lib/scripting/CommonAPI/Include/kocpp.h"
#include "lib/scripting/Plumscript/Source/clmessageport.h"
#include "tests/scripting/component_test.h"

namespace object_test {

using component_test::Arg;
using component_test::Core;
using component_test::describe;
using component_test::Value;

// A core with the native classes and those of the test.
class Objects : public testing::Test {
 protected:
  explicit Objects(std::initializer_list<pscClass*> classes = {}) {
    KelvoRegisterClasses();
    for (pscClass* cl : classes) pscRegisterClass(cl);
  }

  pscDomain* domain() { return core.domain(); }

  // As CreateObject does.
  Value create(const char* name, const std::vector<Arg>& args = {}) {
    std::vector<psTypedValue> values;
    for (const Arg& arg : args) values.push_back(core.value(arg));
    return createWith(name, std::move(values));
  }
  Value createWith(const char* name, std::vector<psTypedValue> values) {
    psTypedValue result = psInvalidValue();
    status = pscCreateWithArguments(domain(), pscFindClassByName(name), values.data(),
                                    static_cast<int>(values.size()), &result);
    return Value(result);
  }

  std::string call(const Value& object, const char* name, const std::vector<Arg>& args = {}) {
    return describe(core.call(object.object(), name, args));
  }
  Value callWith(const Value& object, const char* name, std::vector<psTypedValue> values) {
    const pscMemberFunction found =
        pscFindMemberFunction(object.object(), name, static_cast<int>(values.size()));
    EXPECT_TRUE(found) << name;
    return found ? core.callValues(object.object(), found.function, std::move(values)) : Value();
  }

  // The next message of a port, at once.
  static Value take(const Value& port) {
    const void* methods = pscGetMethods(port.object(), "ifMessagePort");
    return Value(static_cast<const psIfMessagePort*>(methods)->GetMessage(port.object()));
  }

  Core core;
  psStatus status = kPsOkay;
};

}  // namespace object_test
