// koRegistry and koRegistrySection: the device's settings for scripts.
//
// Neither object shows a script the sections that are the system's own. What the registry refuses
// becomes the failure reason, and the result false, or an empty text or list.
#pragma once

#include <string>

#include "lib/scripting/CommonAPI/Include/interface_mixins.h"

class RegistryInstance final
    : public MixinForwarder<RegistryInstance, KelvoObjectInstance<RegistryInstance>,
                            FailureReasonMixin> {
 public:
  static pscClass sm_class;  // koRegistry

  KelvoObjectRef GetSectionList();  // a koList of texts
  bool Delete(psText section);
  bool Flush();
};

class RegistrySectionInstance final
    : public MixinForwarder<RegistrySectionInstance,
                            KelvoObjectInstance<RegistrySectionInstance, psText>,
                            FailureReasonMixin> {
 public:
  static pscClass sm_class;  // koRegistrySection

  // Throws Registry::InvalidName for what is no name of a section for scripts. The section need not
  // exist: its first key makes it.
  bool Init(psText section);

  KelvoObjectRef GetKeyList();  // a koList of texts
  std::string Read(psText key);
  bool Write(psText key, psText value);
  bool Delete(psText key);
  bool Exists(psText key);
  bool Flush();

 private:
  std::string m_section;
};
