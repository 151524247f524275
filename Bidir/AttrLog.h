#pragma once
// Attribute-log replication of the configuration entities (Config, ConfigColl, ClearConfig,
// ClearConfigColl). Each type's adapter, `T::KivNboAttrLogSa`, is Kiv::NboAttrLog::Sa<T>,
// generated from T's attribute declaration (for the two collections, a class derived from it
// that names the member operations after the collection); this header makes them complete and
// registers the four type names with the attribute log (at load time, and again by
// attrLogTypesRegister for programs linked statically).
//
// The entry points below are what a program calls to carry configuration and clear requests
// from the configuration process to the agent: the configuration process serves its two
// collections on a Unix-domain socket path, the agent attaches its own two collections to that
// path. Collections bind by type and name, so both sides must create them under the same names.
// The agent's collections then follow the configuration's (members appear, change and go), and
// the agent's notifiees fire once per applied change; a restart of either side resynchronises.

#include <memory>
#include <string>

#include "Bidir/ClearConfig.h"
#include "Bidir/ClearConfigColl.h"
#include "Bidir/Config.h"
#include "Bidir/ConfigColl.h"
#include "Kiv/NboAttrLogSa.h"

extern template class Kiv::NboAttrLog::Sa<Routing::Pim::Bidir::Config>;
extern template class Kiv::NboAttrLog::Sa<Routing::Pim::Bidir::ConfigColl>;
extern template class Kiv::NboAttrLog::Sa<Routing::Pim::Bidir::ClearConfig>;
extern template class Kiv::NboAttrLog::Sa<Routing::Pim::Bidir::ClearConfigColl>;

namespace Routing::Pim::Bidir {

// The collections' adapters: the generic member operations under each collection's names. A
// member's adapter is the member's own KivNboAttrLogSa on the same output.
class ConfigColl::KivNboAttrLogSa final : public Kiv::NboAttrLog::Sa<ConfigColl> {
 public:
  using Sa::Sa;
  void kivHandleVrfConfigSerializeSing(L3::VrfName const& name, Kiv::Ptr<Config> const& member) {
    memberSerializeSing(name, member);
  }
  bool kivHandleVrfConfigSerializeColl() { return membersSerializeColl(); }
  Kiv::Ptr<Config::KivNboAttrLogSa> vrfConfigNboAttrLogAdapter(L3::VrfName const& name) const {
    return memberAdapter<Config>(name);
  }
  Kiv::Ptr<Config::KivNboAttrLogSa> vrfConfigNboAttrLogAdapterIs(L3::VrfName const& name) {
    return memberAdapterIs<Config>(name);
  }
  void vrfConfigNboAttrLogAdapterDel(L3::VrfName const& name) { memberAdapterDel(name); }
  std::size_t vrfConfigNboAttrLogAdapterCount() const noexcept { return memberAdapterCount(); }
};

class ClearConfigColl::KivNboAttrLogSa final : public Kiv::NboAttrLog::Sa<ClearConfigColl> {
 public:
  using Sa::Sa;
  void kivHandleVrfClearConfigSerializeSing(L3::VrfName const& name,
                                            Kiv::Ptr<ClearConfig> const& member) {
    memberSerializeSing(name, member);
  }
  bool kivHandleVrfClearConfigSerializeColl() { return membersSerializeColl(); }
  Kiv::Ptr<ClearConfig::KivNboAttrLogSa> vrfClearConfigNboAttrLogAdapter(
      L3::VrfName const& name) const {
    return memberAdapter<ClearConfig>(name);
  }
  Kiv::Ptr<ClearConfig::KivNboAttrLogSa> vrfClearConfigNboAttrLogAdapterIs(
      L3::VrfName const& name) {
    return memberAdapterIs<ClearConfig>(name);
  }
  void vrfClearConfigNboAttrLogAdapterDel(L3::VrfName const& name) { memberAdapterDel(name); }
  std::size_t vrfClearConfigNboAttrLogAdapterCount() const noexcept {
    return memberAdapterCount();
  }
};

void attrLogTypesRegister();

// The configuration side: serves `configs` and `clears` to every agent that connects to `path`.
// Agents only read: a peer may not create or change anything here (options.peers is always
// Peers::readers), and one that tries is refused and disconnected (Kiv/NboAttrLogTransport.h).
std::unique_ptr<Kiv::NboAttrLog::Server> configurationServe(
    Kiv::Activity& activity, std::string const& path, Kiv::Ptr<ConfigColl> const& configs,
    Kiv::Ptr<ClearConfigColl> const& clears,
    Kiv::NboAttrLog::Endpoint::Options options = Kiv::NboAttrLog::Endpoint::Options{});

// The agent side: keeps `configs` and `clears` equal to the served ones, reconnecting as needed.
std::unique_ptr<Kiv::NboAttrLog::Client> configurationAttach(
    Kiv::Activity& activity, std::string const& path, Kiv::Ptr<ConfigColl> const& configs,
    Kiv::Ptr<ClearConfigColl> const& clears,
    Kiv::NboAttrLog::Endpoint::Options options = Kiv::NboAttrLog::Endpoint::Options{});

}  // namespace Routing::Pim::Bidir
