// TunnelFibBuilder: forms to entries, shared encapsulations with their reference counts, reconcile.
#include "TunnelFib/TunnelFibBuilder.h"

#include <fmt/format.h>

#include <set>

#include "Vela/Exception.h"

namespace Tunnel::TunnelFib {

using TunnelTable::EncapType;

namespace {

// An encapsulation's key: its kind's code, then its parameters' byte form.
std::string encapKey(EncapType type, const Wirekit::UnboundedMplsLabelOperation& labels) {
   std::string key(1 + labels.serializeLen(), '\0');
   key[0] = char(type);
   labels.serialize(key.data() + 1);
   return key;
}
template <class Info>
std::string encapKey(EncapType type, const Info& info) {
   std::string key(1 + Info::kSerializedSize, '\0');
   key[0] = char(type);
   info.serialize(reinterpret_cast<uint8_t*>(key.data() + 1));
   return key;
}
template <class Info>
Info infoOf(const std::string& key) {
   return Info::deserialize(reinterpret_cast<const uint8_t*>(key.data() + 1));
}

// The largest label stack a LabelStackEncap record holds, in bytes of its byte form.
constexpr uint32_t kMaxLabelStackLen =
    LabelStackEncap::kMaxSerializedLen - EncapId::kSerializedSize;

}  // namespace

TunnelFibBuilder::TunnelFibBuilder(const TunnelTable::TunnelTableMounter& mounter)
    : fib_(mountTunnelFib(*mounter.mountService(), true, *mounter.eventLoop())),
      watch_(*mounter.eventLoop(), [this](const auto& changes, bool r) { apply(changes, r); }) {
   attach(TunnelTable::mountProtocolReaders(
       mounter, [](std::string_view type) { return bool(fibFormReader(type)); }));
}

TunnelFibBuilder::TunnelFibBuilder(
    const std::vector<Vela::Ptr<TunnelTable::TunnelTableBase>>& sources, Vela::Ptr<TunnelFib> fib,
    Loom::EventLoop& loop)
    : fib_(std::move(fib)),
      watch_(loop, [this](const auto& changes, bool r) { apply(changes, r); }) {
   attach(sources);
}

void TunnelFibBuilder::attach(const std::vector<Vela::Ptr<TunnelTable::TunnelTableBase>>& sources) {
   for (const auto& table : sources) {
      if (!table) continue;
      FibFormReader reader = fibFormReader(table->fwkTypeName());
      if (!reader) continue;
      watch_.add(table);
      readers_.push_back(std::move(reader));
   }
   watch_.start();
}

uint32_t TunnelFibBuilder::encapReferences(const EncapId& id) const {
   auto k = encapKeys_.find(id);
   if (k == encapKeys_.end()) return 0;
   return encapsByKey_.at(k->second).references;
}

void TunnelFibBuilder::apply(const std::set<TunnelTable::TableWatch::Change>& changes,
                             bool reconcileNow) {
   std::set<uint64_t> dirty;
   for (const auto& change : changes) {
      std::optional<FibForm> form =
          readers_[change.source](*watch_.table(change.source), change.key());
      auto& offers = offers_[change.tunnelId];
      if (form) {
         offers[change.source] = std::move(*form);
      } else {
         offers.erase(change.source);
         if (offers.empty()) offers_.erase(change.tunnelId);
      }
      dirty.insert(change.tunnelId);
   }
   for (uint64_t tunnelId : dirty) install(tunnelId);
   if (reconcileNow) reconcile();
}

void TunnelFibBuilder::install(uint64_t tunnelId) {
   const TunnelTable::TunnelId key(tunnelId);
   auto offer = offers_.find(tunnelId);
   if (offer == offers_.end()) {
      refused_.erase(key);
      uninstall(tunnelId);
      return;
   }
   const FibForm& form = offer->second.begin()->second;
   auto current = installed_.find(tunnelId);
   if (current != installed_.end() && current->second.form == form) return;
   ++counters_.tunnelChanges;
   if (std::optional<std::string> why = refusal(form)) {
      SPOOR_TRACE(tunnelFibTrace(), 1, "tunnel {} index {} refused: {}", key.typeCliStr(),
                  key.tunnelIndex(), *why);
      refused_[key] = std::move(*why);
      uninstall(tunnelId);
      return;
   }
   refused_.erase(key);
   // The new entry's encapsulations are written before it; the old ones let go after it.
   Installed next{form, {}};
   const TunnelFibEntry entry = entryOf(key, form, next.encaps);
   fib_->entryIs(entry);
   ++counters_.entryWrites;
   if (current != installed_.end()) {
      for (const EncapId& id : current->second.encaps) release(id);
      current->second = std::move(next);
   } else {
      installed_.emplace(tunnelId, std::move(next));
   }
}

void TunnelFibBuilder::uninstall(uint64_t tunnelId) {
   auto current = installed_.find(tunnelId);
   if (current == installed_.end()) return;
   fib_->entryDel(TunnelTable::TunnelId(tunnelId));
   ++counters_.entryDeletes;
   for (const EncapId& id : current->second.encaps) release(id);
   installed_.erase(current);
}

std::optional<std::string> TunnelFibBuilder::refusal(const FibForm& form) {
   for (const auto* vias : {&form.primary, &form.backup}) {
      if (vias->size() > kTunnelViaCapacity) {
         return fmt::format("{} vias, more than the {} an entry holds", vias->size(),
                            kTunnelViaCapacity);
      }
      for (const FormVia& via : *vias) {
         if (via.labels.serializeLen() > kMaxLabelStackLen) {
            return fmt::format(
                "a label stack of {} labels, deeper than the {} a label stack "
                "encapsulation holds",
                via.labels.labelCount(),
                (kMaxLabelStackLen - Wirekit::UnboundedMplsLabelOperation::kHeaderSize) / 4);
         }
      }
   }
   return std::nullopt;
}

TunnelFibEntry TunnelFibBuilder::entryOf(const TunnelTable::TunnelId& key, const FibForm& form,
                                         std::vector<EncapId>& encaps) {
   TunnelFibEntry entry(key);
   entry.arePrimaryViasUsableIs(form.arePrimaryViasUsable);
   entry.seqNoIs(form.seqNo);
   for (size_t i = 0; i < form.primary.size(); ++i) {
      const FormVia& v = form.primary[i];
      entry.tunnelViaIs(
          TunnelViaIndex(i),
          TunnelTable::TunnelVia(v.nextHop, v.intf, viaEncap(v, form.tunnelEncap, encaps)));
   }
   for (size_t i = 0; i < form.backup.size(); ++i) {
      const FormVia& v = form.backup[i];
      entry.backupTunnelViaIs(
          TunnelViaIndex(i),
          TunnelTable::TunnelVia(v.nextHop, v.intf, viaEncap(v, form.tunnelEncap, encaps)));
   }
   return entry;
}

EncapId TunnelFibBuilder::viaEncap(const FormVia& via, const TunnelEncap& tunnelEncap,
                                   std::vector<EncapId>& encaps) {
   EncapId id;
   if (const auto* gre = std::get_if<GreTunnelInfo>(&tunnelEncap)) {
      id = acquire<GreEncap>(EncapType::gre, *gre);
   } else if (const auto* ipsecGre = std::get_if<IpsecGreTunnelInfo>(&tunnelEncap)) {
      id = acquire<IpsecGreEncap>(EncapType::ipsecGre, *ipsecGre);
   } else if (const auto* ipsecVti = std::get_if<IpsecVtiTunnelInfo>(&tunnelEncap)) {
      id = acquire<IpsecVtiEncap>(EncapType::ipsecVti, *ipsecVti);
   } else if (const auto* vxlan = std::get_if<VxlanTunnelInfo>(&tunnelEncap)) {
      id = acquire<VxlanEncap>(EncapType::vxlan, *vxlan);
   } else if (!via.labels.isNone()) {
      id = acquire<LabelStackEncap>(EncapType::labelStack, via.labels);
   } else {
      return id;
   }
   encaps.push_back(id);
   return id;
}

template <class Encap, class Value>
EncapId TunnelFibBuilder::acquire(EncapType type, const Value& value) {
   std::string key = encapKey(type, value);
   auto [it, inserted] = encapsByKey_.try_emplace(key);
   if (inserted) {
      uint32_t v;
      auto& free = freeEncapValues_[type];
      if (!free.empty()) {
         v = free.back();
         free.pop_back();
      } else {
         v = ++nextEncapValue_[type];
      }
      it->second.id = EncapId(type, v);
      encapKeys_.emplace(it->second.id, key);
      writeEncap(it->second.id, key);
   }
   ++it->second.references;
   return it->second.id;
}

void TunnelFibBuilder::release(const EncapId& id) {
   auto k = encapKeys_.find(id);
   if (k == encapKeys_.end()) return;
   auto use = encapsByKey_.find(k->second);
   if (--use->second.references > 0) return;
   removeEncap(id);
   encapsByKey_.erase(use);
   encapKeys_.erase(k);
   freeEncapValues_[id.encapType()].push_back(id.value());
}

void TunnelFibBuilder::writeEncap(const EncapId& id, const std::string& key) {
   ++counters_.encapWrites;
   switch (id.encapType()) {
      case EncapType::labelStack:
         fib_->labelStackEncapIs(
             LabelStackEncap(id, Wirekit::UnboundedMplsLabelOperation::deserialize(
                                     key.data() + 1, uint32_t(key.size() - 1))));
         break;
      case EncapType::gre:
         fib_->greEncapIs(GreEncap(id, infoOf<GreTunnelInfo>(key)));
         break;
      case EncapType::ipsecGre:
         fib_->ipsecGreEncapIs(IpsecGreEncap(id, infoOf<IpsecGreTunnelInfo>(key)));
         break;
      case EncapType::ipsecVti:
         fib_->ipsecVtiEncapIs(IpsecVtiEncap(id, infoOf<IpsecVtiTunnelInfo>(key)));
         break;
      case EncapType::vxlan:
         fib_->vxlanEncapIs(VxlanEncap(id, infoOf<VxlanTunnelInfo>(key)));
         break;
      case EncapType::none:
         break;
   }
}

void TunnelFibBuilder::removeEncap(const EncapId& id) {
   ++counters_.encapDeletes;
   switch (id.encapType()) {
      case EncapType::labelStack:
         fib_->labelStackEncapDel(id);
         break;
      case EncapType::gre:
         fib_->greEncapDel(id);
         break;
      case EncapType::ipsecGre:
         fib_->ipsecGreEncapDel(id);
         break;
      case EncapType::ipsecVti:
         fib_->ipsecVtiEncapDel(id);
         break;
      case EncapType::vxlan:
         fib_->vxlanEncapDel(id);
         break;
      case EncapType::none:
         break;
   }
}

void TunnelFibBuilder::reconcile() {
   ++counters_.reconciles;
   // Entries first, so that no entry is left naming an encapsulation removed below.
   for (const TunnelTable::TunnelId& key : fib_->entryKeys()) {
      if (!installed_.count(key.value())) {
         fib_->entryDel(key);
         ++counters_.entryDeletes;
      }
   }
   // Encapsulations the builder does not hold are removed; those it holds are rewritten when the
   // store holds something else under the identifier.
   auto settle = [this](const std::vector<EncapId>& ids, auto stored) {
      for (const EncapId& id : ids) {
         auto k = encapKeys_.find(id);
         if (k == encapKeys_.end()) {
            removeEncap(id);
         } else if (!stored(id, k->second)) {
            writeEncap(id, k->second);
         }
      }
   };
   settle(fib_->labelStackEncapKeys(), [this](const EncapId& id, const std::string& key) {
      return encapKey(EncapType::labelStack, fib_->labelStackEncap(id).labelStack()) == key;
   });
   settle(fib_->greEncapKeys(), [this](const EncapId& id, const std::string& key) {
      return encapKey(EncapType::gre, fib_->greEncap(id).tunnelInfo()) == key;
   });
   settle(fib_->ipsecGreEncapKeys(), [this](const EncapId& id, const std::string& key) {
      return encapKey(EncapType::ipsecGre, fib_->ipsecGreEncap(id).tunnelInfo()) == key;
   });
   settle(fib_->ipsecVtiEncapKeys(), [this](const EncapId& id, const std::string& key) {
      return encapKey(EncapType::ipsecVti, fib_->ipsecVtiEncap(id).tunnelInfo()) == key;
   });
}

}  // namespace Tunnel::TunnelFib
