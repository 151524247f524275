#include "Bidir/AttrLog.h"

#include "Bidir/GroupIntfKey.h"
#include "Bidir/MrouteClearFlags.h"

template class Kiv::NboAttrLog::Sa<Routing::Pim::Bidir::Config>;
template class Kiv::NboAttrLog::Sa<Routing::Pim::Bidir::ConfigColl>;
template class Kiv::NboAttrLog::Sa<Routing::Pim::Bidir::ClearConfig>;
template class Kiv::NboAttrLog::Sa<Routing::Pim::Bidir::ClearConfigColl>;

namespace Routing::Pim::Bidir {

void nboWrite(Kiv::NboAttrLog::Out& out, MrouteClearFlags const& v) {
  out.put32(v.value());
}

MrouteClearFlags nboRead(Kiv::NboAttrLog::Cursor& in, MrouteClearFlags const*) {
  return MrouteClearFlags::fromWordUnchecked(in.u32());
}

void nboWrite(Kiv::NboAttrLog::Out& out, ClearConfig::GroupKey const& v) {
  out.put32(v.flags().value());
  nboWrite(out, v.gAddr());
}

ClearConfig::GroupKey nboRead(Kiv::NboAttrLog::Cursor& in, ClearConfig::GroupKey const*) {
  MrouteClearFlags const flags(in.u32());  // checked: a word above 3 is refused here
  Lanx::IpGenAddr const gAddr = nboRead(in, static_cast<Lanx::IpGenAddr const*>(nullptr));
  return ClearConfig::GroupKey(flags, gAddr);
}

void nboWrite(Kiv::NboAttrLog::Out& out, GroupIntfKey const& v) {
  nboWrite(out, v.groupAddr());
  nboWrite(out, v.intfId());
}

GroupIntfKey nboRead(Kiv::NboAttrLog::Cursor& in, GroupIntfKey const*) {
  Lanx::IpGenAddr const addr = nboRead(in, static_cast<Lanx::IpGenAddr const*>(nullptr));
  return GroupIntfKey(addr, nboRead(in, static_cast<Lanx::IntfId const*>(nullptr)));
}

void attrLogTypesRegister() {
  Kiv::NboAttrLog::typeIs<Config>();
  Kiv::NboAttrLog::typeIs<ConfigColl>();
  Kiv::NboAttrLog::typeIs<ClearConfig>();
  Kiv::NboAttrLog::typeIs<ClearConfigColl>();
}

namespace {
[[maybe_unused]] bool const registered = (attrLogTypesRegister(), true);
}  // namespace

std::unique_ptr<Kiv::NboAttrLog::Server> configurationServe(
    Kiv::Activity& activity, std::string const& path, Kiv::Ptr<ConfigColl> const& configs,
    Kiv::Ptr<ClearConfigColl> const& clears, Kiv::NboAttrLog::Endpoint::Options options) {
  attrLogTypesRegister();
  options.peers = Kiv::NboAttrLog::Endpoint::Peers::readers;  // agents only read
  auto server = std::make_unique<Kiv::NboAttrLog::Server>(activity, path, options);
  server->serve(configs);
  server->serve(clears);
  return server;
}

std::unique_ptr<Kiv::NboAttrLog::Client> configurationAttach(
    Kiv::Activity& activity, std::string const& path, Kiv::Ptr<ConfigColl> const& configs,
    Kiv::Ptr<ClearConfigColl> const& clears, Kiv::NboAttrLog::Endpoint::Options options) {
  attrLogTypesRegister();
  auto client = std::make_unique<Kiv::NboAttrLog::Client>(activity, path, options);
  client->read(configs);
  client->read(clears);
  return client;
}

}  // namespace Routing::Pim::Bidir
