#pragma once
// Checks that every change of an entity reports its own attribute: watchers that log what they
// hear by attribute name, and a runner that applies a list of changes with a watcher that throws
// from every handler.

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Kiv/Entity.h"

namespace TestSupport {

// What the watchers of one test heard: each operation as its attribute's name (collections add
// the key), and every onNotificationException. `throwing` makes every handler throw after logging;
// `react` runs on every operation heard.
struct Log {
  std::vector<std::string> lines;
  std::vector<Kiv::AttributeId> exceptions;
  bool throwing = false;
  std::function<void(std::string const&)> react;
  void operator()(std::string line) {
    lines.push_back(line);
    if (react) react(line);
    if (throwing) throw std::runtime_error(line);
  }
};

// Base of one watcher per entity type; the derived watcher logs each of its type's operations.
template <class N>
class Watcher : public N {
 public:
  explicit Watcher(Log& log) : log_(log) {}
  void onParent() override { log_("parent"); }
  void onIsNondestructing() override { log_("isNondestructing"); }
  void onNotificationException(Kiv::AttributeId id) override { log_.exceptions.push_back(id); }

 protected:
  Log& log_;
};

template <class W, class E>
Kiv::Ptr<W> watch(Log& log, Kiv::Ptr<E> const& entity) {
  Kiv::Ptr<W> w = new W(log);
  w->notifierIs(entity);
  return w;
}

// One change of an entity: exactly one notification, of attribute `id` (for a collection, of
// `key`). When `repeatIsSilent`, doing it again changes nothing and notifies nothing.
template <class E>
struct Change {
  Change(Kiv::AttributeId i, std::function<void(E&)> a, std::string k = "", bool silent = true)
      : id(i), apply(std::move(a)), key(std::move(k)), repeatIsSilent(silent) {}
  Kiv::AttributeId id;
  std::function<void(E&)> apply;
  std::string key;
  bool repeatIsSilent;
};

// Runs the changes in order with a watcher that throws from every handler: each change must call
// the handler named after its attribute, once, and report that attribute's identifier through
// onNotificationException. Every stored attribute of the type's declaration must have a change.
template <class W, class E>
void expectEachChangeReportsItsAttribute(Kiv::Ptr<E> const& entity,
                                         std::vector<Change<E>> const& changes) {
  Log log;
  log.throwing = true;
  auto w = watch<W>(log, entity);
  std::set<Kiv::AttributeId> covered;
  for (auto const& c : changes) {
    std::string const name = entity->attributeString(c.id);
    SCOPED_TRACE(name + " " + c.key);
    log.lines.clear();
    log.exceptions.clear();
    c.apply(*entity);
    EXPECT_EQ(log.lines, std::vector<std::string>{c.key.empty() ? name : name + " " + c.key});
    EXPECT_EQ(log.exceptions, std::vector<Kiv::AttributeId>{c.id});
    if (c.repeatIsSilent) {
      c.apply(*entity);
      EXPECT_EQ(log.lines.size(), 1u);
    }
    covered.insert(c.id);
  }
  for (Kiv::AttributeDecl const& a : entity->attributeTable().attributes) {
    bool const stored = a.kind == Kiv::AttributeKind::settable ||
                        a.kind == Kiv::AttributeKind::counter ||
                        a.kind == Kiv::AttributeKind::settableReference ||
                        a.kind == Kiv::AttributeKind::collection;
    EXPECT_TRUE(!stored || covered.count(a.id)) << a.name << " has no change";
  }
}

}  // namespace TestSupport
