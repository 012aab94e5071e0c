// Routing::Multicast::MulticastTreeId: the identity of a multicast tree, as text. The text is held
// once and shared: copying a tree id (and so an entry that holds one) takes a reference on it
// instead of copying the characters. The reference count is Vela's, so it is atomic when the
// process runs with thread-safe pointers and a plain increment otherwise.
//
// The empty tree id holds no text. Equality, order and hash are those of the text.
// Text form: "Value('Routing::Multicast::MulticastTreeId', ** {'text': '<text>'})".
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "Vela/Ptr.h"
#include "Vela/String.h"

namespace Routing::Multicast {

class MulticastTreeId {
  public:
   static constexpr const char* kTypeName = "Routing::Multicast::MulticastTreeId";

   MulticastTreeId() noexcept = default;
   explicit MulticastTreeId(std::string_view text);

   std::string_view text() const noexcept {
      return text_ ? std::string_view(text_->text) : std::string_view();
   }
   bool empty() const noexcept { return !text_; }
   // References held on the shared text (0 for the empty tree id).
   uint32_t sharers() const noexcept { return text_ ? text_->references() : 0; }
   // Whether two tree ids share one text (not merely equal texts).
   bool sharesTextWith(const MulticastTreeId& other) const noexcept {
      return text_ && text_ == other.text_;
   }

   uint32_t hash(uint32_t seed = 0) const noexcept;

   friend bool operator==(const MulticastTreeId& a, const MulticastTreeId& b) noexcept {
      return a.text() == b.text();
   }
   friend auto operator<=>(const MulticastTreeId& a, const MulticastTreeId& b) noexcept {
      return a.text() <=> b.text();
   }

  private:
   struct SharedText : Vela::RefCounted {
      explicit SharedText(std::string_view t) : text(t) {}
      const Vela::String text;
   };
   Vela::Ptr<SharedText> text_;
};

Vela::String valueToStrep(const MulticastTreeId& id);
std::ostream& operator<<(std::ostream& os, const MulticastTreeId& id);

}  // namespace Routing::Multicast
