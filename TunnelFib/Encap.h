// The tunnel FIB's encapsulations: what a tunnel via's EncapId names. Each is keyed by encapId()
// and holds one more field, the label stack to push or the interface tunnel's parameters:
//
//    LabelStackEncap   encapId, labelStack  (Wirekit::UnboundedMplsLabelOperation)
//    GreEncap          encapId, tunnelInfo  (Tunnel::GreTunnelInfo)
//    IpsecGreEncap     encapId, tunnelInfo  (Tunnel::IpsecGreTunnelInfo)
//    IpsecVtiEncap     encapId, tunnelInfo  (Tunnel::IpsecVtiTunnelInfo)
//    VxlanEncap        encapId, tunnelInfo  (Tunnel::VxlanTunnelInfo)
//
// The four interface tunnel encapsulations are one template, InfoEncap, over a tag that names the
// type and its info. All five are plain values: the default has the default EncapId and a default
// second field, and operator bool is true when a value differs from it; equality compares
// encapId, then the second field.
//
// Text form "Value('Tunnel::TunnelFib::GreEncap', ** {'encapId': <EncapId text form>,
// 'tunnelInfo': <info text form>})" ('labelStack': '<operation text>' for LabelStackEncap); the
// text constructor reads it back. dockString: "<EncapId text form>: tunnelInfo: <info text form>"
// ("...: labelStack: <operation text>").
//
// Byte form: the EncapId (4 bytes, its own form), then the second field in its own form:
//
//    struct InfoEncapRecord {                  // 68, 74, 66 or 52 bytes
//       u32 encapId;
//       u8  tunnelInfo[Info::kSerializedSize];
//    };
//    struct LabelStackEncapRecord {            // 12 + 4 * labels bytes
//       u32 encapId;
//       u8  labelStack[8 + 4 * labels];
//    };
//
// deserialize accepts exactly one record of `length` bytes as a writer produces it; anything else
// throws a Vela::Exception and leaves the value unchanged. deserializeLen answers the record's
// length only when it is exactly `length`, 0 otherwise.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "TunnelTable/EntryFieldTraits.h"
#include "TunnelTable/TunnelInfo.h"
#include "TunnelTable/TunnelValueTypes.h"
#include "Vela/String.h"
#include "Wirekit/UnboundedMplsLabelOperation.h"

namespace Tunnel::TunnelFib {

using TunnelTable::EncapId;

// EncapId as an encapsulation field: its 4-byte block, its text form in text and dumps.
struct EncapIdField : TunnelTable::Codec::BlockTraits<EncapId> {
   static Vela::String text(const EncapId& v) { return valueToStrep(v); }
   static EncapId parse(std::string_view raw) { return TunnelTable::Codec::fromText<EncapId>(raw); }
   static Vela::String dumpText(const EncapId& v) { return text(v); }
};

class LabelStackEncap {
  public:
   using LabelStack = Wirekit::UnboundedMplsLabelOperation;
   static constexpr const char* kTypeName = "Tunnel::TunnelFib::LabelStackEncap";
   static constexpr uint32_t kMinSerializedLen = EncapId::kSerializedSize + LabelStack::kHeaderSize;
   // The longest record the tables are sized for (the label operation's bound for fields).
   static constexpr uint32_t kMaxSerializedLen =
       EncapId::kSerializedSize + TunnelTable::Codec::FieldTraits<LabelStack>::kMaxLen;

   LabelStackEncap() = default;
   explicit LabelStackEncap(const EncapId& encapId, const LabelStack& labelStack = {})
       : encapId_(encapId), labelStack_(labelStack) {}
   LabelStackEncap(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   const EncapId& encapId() const noexcept { return encapId_; }
   void encapIdIs(const EncapId& v) noexcept { encapId_ = v; }
   const LabelStack& labelStack() const noexcept { return labelStack_; }
   void labelStackIs(const LabelStack& v) { labelStack_ = v; }

   explicit operator bool() const;
   friend bool operator==(const LabelStackEncap& a, const LabelStackEncap& b);

   uint32_t serializeLen() const noexcept {
      return EncapId::kSerializedSize + labelStack_.serializeLen();
   }
   void serialize(void* buffer) const noexcept;
   // 0 when length < 5; else 4 + the label operation's deserializeLen over the bytes after the
   // EncapId, if that is exactly `length`, and 0 otherwise.
   static uint32_t deserializeLen(const void* buffer, uint32_t length) noexcept;
   void deserialize(const void* buffer, uint32_t length);

   Vela::String dockString() const;
   // `indent` blanks, dockString(), a newline.
   void dumpState(Vela::String& out, int indent) const;

   static constexpr auto fields() {
      return std::tuple{
          TunnelTable::Codec::fieldAs<&LabelStackEncap::encapId_, EncapIdField>("encapId"),
          TunnelTable::Codec::field<&LabelStackEncap::labelStack_>("labelStack")};
   }

  private:
   EncapId encapId_;
   LabelStack labelStack_;
};

// An interface tunnel encapsulation. Tag provides `typeName` (the qualified type name) and
// `Info` (the tunnel info type, a fixed block).
template <class Tag>
class InfoEncap {
  public:
   using Info = typename Tag::Info;
   static constexpr const char* kTypeName = Tag::typeName;
   static constexpr uint32_t kSerializedLen = EncapId::kSerializedSize + Info::kSerializedSize;
   static constexpr uint32_t kMaxSerializedLen = kSerializedLen;

   InfoEncap() = default;
   explicit InfoEncap(const EncapId& encapId, const Info& tunnelInfo = {})
       : encapId_(encapId), tunnelInfo_(tunnelInfo) {}
   InfoEncap(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   const EncapId& encapId() const noexcept { return encapId_; }
   void encapIdIs(const EncapId& v) noexcept { encapId_ = v; }
   const Info& tunnelInfo() const noexcept { return tunnelInfo_; }
   void tunnelInfoIs(const Info& v) noexcept { tunnelInfo_ = v; }

   explicit operator bool() const;
   bool operator==(const InfoEncap& other) const;

   uint32_t serializeLen() const noexcept { return kSerializedLen; }
   void serialize(void* buffer) const noexcept;
   // kSerializedLen when `length` is exactly that, 0 otherwise.
   static uint32_t deserializeLen(const void* buffer, uint32_t length) noexcept;
   void deserialize(const void* buffer, uint32_t length);

   Vela::String dockString() const;
   // `indent` blanks, dockString(), a newline.
   void dumpState(Vela::String& out, int indent) const;

   static constexpr auto fields() {
      return std::tuple{TunnelTable::Codec::fieldAs<&InfoEncap::encapId_, EncapIdField>("encapId"),
                        TunnelTable::Codec::field<&InfoEncap::tunnelInfo_>("tunnelInfo")};
   }

  private:
   EncapId encapId_;
   Info tunnelInfo_;
};

struct GreEncapTag {
   static constexpr const char* typeName = "Tunnel::TunnelFib::GreEncap";
   using Info = GreTunnelInfo;
};
struct IpsecGreEncapTag {
   static constexpr const char* typeName = "Tunnel::TunnelFib::IpsecGreEncap";
   using Info = IpsecGreTunnelInfo;
};
struct IpsecVtiEncapTag {
   static constexpr const char* typeName = "Tunnel::TunnelFib::IpsecVtiEncap";
   using Info = IpsecVtiTunnelInfo;
};
struct VxlanEncapTag {
   static constexpr const char* typeName = "Tunnel::TunnelFib::VxlanEncap";
   using Info = VxlanTunnelInfo;
};

// Defined in Encap.cpp for these four tags only.
using GreEncap = InfoEncap<GreEncapTag>;
using IpsecGreEncap = InfoEncap<IpsecGreEncapTag>;
using IpsecVtiEncap = InfoEncap<IpsecVtiEncapTag>;
using VxlanEncap = InfoEncap<VxlanEncapTag>;

extern template class InfoEncap<GreEncapTag>;
extern template class InfoEncap<IpsecGreEncapTag>;
extern template class InfoEncap<IpsecVtiEncapTag>;
extern template class InfoEncap<VxlanEncapTag>;

// The fixed-size encapsulations are stored as plain values.
static_assert(std::is_trivially_copyable_v<GreEncap> && std::is_trivially_copyable_v<VxlanEncap>);
static_assert(std::is_trivially_copyable_v<IpsecGreEncap> &&
              std::is_trivially_copyable_v<IpsecVtiEncap>);

Vela::String valueToStrep(const LabelStackEncap& v);
std::ostream& operator<<(std::ostream& os, const LabelStackEncap& v);
template <class Tag>
Vela::String valueToStrep(const InfoEncap<Tag>& v);
template <class Tag>
std::ostream& operator<<(std::ostream& os, const InfoEncap<Tag>& v);

}  // namespace Tunnel::TunnelFib
