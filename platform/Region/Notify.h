// Region::Notify: the callbacks a table registers with its shared-memory reader.
//
// The reader copies values out of shared memory and hands the table only copies (never pointers
// into a mapped file). Per key it calls onValue with the new value and onKey with its key when a
// key was added or changed, and onKeyRemoved when it went away. onWholeTable announces a full
// resynchronization (first attach, a re-attach after the writer restarted, or a reader that the
// writer lapped): the reader then reports every key again, added, changed or removed, so the table
// loses no key. onSyncComplete is called once, when the reader has worked through everything the
// queue held at attach; onQuiesced(true) whenever it has caught up with the writer.
//
// Any callback may be empty (except the two with defaults), and is then not called.
#pragma once

#include <functional>

namespace Region {

template <class K, class V>
struct Notify {
   std::function<void(const V&)> onValue;
   std::function<void(const K&)> onKey;
   std::function<void(const K&)> onKeyRemoved;
   std::function<void()> onWholeTable;
   std::function<void()> onSyncComplete = [] {};
   std::function<void(bool)> onQuiesced = [](bool) {};
};

}  // namespace Region
