// cw::Plugin: the base class of plug-ins.
#ifndef CW_PLUGIN_H
#define CW_PLUGIN_H

#include <quarn/export.h>

namespace cw {

// Derive from it, and hand the plug-in to PluginRegistrar::AddPlugin, which keeps it alive. Belongs
// to the platform thread.
class TARV_EXPORT Plugin {
 public:
  Plugin() = default;
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;
  virtual ~Plugin() = default;

  // The engine ends, or the registrar lets go of its plug-ins: give back what other plug-ins or the
  // registrar may still be asked about. The registrar is whole during the call; the plug-in is
  // destroyed once every plug-in has been told, unless somebody else holds it. Must not throw.
  virtual void Release() {}
};

}  // namespace cw

#endif  // CW_PLUGIN_H
