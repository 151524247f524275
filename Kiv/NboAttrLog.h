#pragma once
// Kiv::NboAttrLog: the attribute log, which replicates entities between processes as a byte
// stream in network byte order. This header brings in the whole of it:
//
//   Kiv/NboAttrLogWire.h       the records on the wire, Cursor and the built-in codecs
//   Kiv/NboAttrLogSaBase.h     what every adapter has in common; the registry of types
//   Kiv/NboAttrLogOut.h        Out, the writing half of a channel, and FlowOut
//   Kiv/NboAttrLogIn.h         In, the reading half of a channel
//   Kiv/NboAttrLogTransport.h  Channel, Endpoint, Server and Client
//   Kiv/NboAttrLogSa.h         Sa<E>, the adapter of an entity type (include it where the
//                              adapters of a type are made)
//
// An entity type takes part by deriving from AttrLogInterface<E> (below) and declaring its
// attributes (Kiv/Attribute.h); its adapter is generated from that declaration.

#include <cstdint>

#include "Kiv/NboAttrLogIn.h"
#include "Kiv/NboAttrLogOut.h"
#include "Kiv/NboAttrLogSaBase.h"
#include "Kiv/NboAttrLogTransport.h"
#include "Kiv/NboAttrLogWire.h"

namespace Kiv::NboAttrLog {

template <class E>
class Sa;

// The attribute-log operations of an entity type E (a base of E; defined in Kiv/NboAttrLogSa.h).
// `E::KivNboAttrLogSa` is the type's adapter, generated from E's attribute declaration (a
// collection type may declare its own, derived from Sa<E>, to name its member operations).
template <class E>
class AttrLogInterface {
 public:
  using KivNboAttrLogSa = Sa<E>;

  static constexpr bool kivHasAttrLogInterface() noexcept { return true; }
  // The adapter of this entity on `out`, created (creation record or member record, then every
  // attribute) when there is none. An existing adapter is returned; if its notification bits
  // differ from `mask`'s they are replaced, its other state bits kept.
  // (Each returns Ptr<E::KivNboAttrLogSa>, spelled `auto` here because E is not complete yet.)
  auto kivNboAttrLogSaIs(std::uint32_t mask, std::uint32_t flags, Out& out, SaBase* parent);
  auto kivNboAttrLogSa(Out const& out) const;
  void kivNboAttrLogSaDel(Out& out);
  // This entity's adapter on the channel that `adapter` serves (either direction).
  auto kivNboAttrLogSaForMsgChannel(SaBase const& adapter) const;

 protected:
  AttrLogInterface() = default;
  ~AttrLogInterface() = default;
};

}  // namespace Kiv::NboAttrLog
