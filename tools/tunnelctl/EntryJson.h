// EntryJson: an entry of any tunnel table as JSON, every field a JSON field, in the manner of
// `ip -j`: names and addresses as strings, numbers as numbers, a tunnel id as its value, type
// (name and code) and index, a label operation as its kind, pop count and label array, vias as
// objects, collections as arrays of their live places. The entry's "Value(...)" text is kept
// alongside under "text". The README gives the schema.
//
// Field names are those of the entry's text form, so a program moving from the text to JSON finds
// the same names.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>

#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelInfo.h"
#include "TunnelTable/TunnelTableBase.h"
#include "Vela/String.h"
#include "Wirekit/MplsLabelOperation.h"
#include "Wirekit/UnboundedMplsLabelOperation.h"

namespace TunnelCtl {

using Json = nlohmann::ordered_json;

// One entry read once: its fields and its text come from the same copy, so they cannot straddle a
// concurrent write.
struct EntryView {
   Tunnel::TunnelTable::TunnelId id;
   Json fields;  // every field, "tunnelId" first
   Vela::String text;
};

// Reads one key of a mounted table; nothing when the key has no entry.
using EntryReader = std::function<std::optional<EntryView>(const Tunnel::TunnelTable::TunnelId&)>;

// The reader for `table` (a table of any kind the tool knows). `table` must outlive it.
EntryReader entryReaderFor(const Tunnel::TunnelTable::TunnelTableBase& table);

// A name as the tool prints it, in JSON and in rows alike: names are printable ASCII (the
// publisher refuses others), so any other byte another writer stored shows as \xNN, and a
// backslash as \\, which keeps the text one to one with the bytes.
std::string printableName(std::string_view bytes);

// {"value", "type", "typeCode", "index"}.
Json tunnelIdJson(const Tunnel::TunnelTable::TunnelId& id);

// A label operation as entries give it: {"operation", "pops", "labels"}.
Json labelOperationJson(const Wirekit::MplsLabelOperation& op);
Json labelOperationJson(const Wirekit::UnboundedMplsLabelOperation& op);

// An interface tunnel's parameters, every field a field under its text form's name.
Json tunnelInfoJson(const Tunnel::GreTunnelInfo& info);
Json tunnelInfoJson(const Tunnel::IpsecGreTunnelInfo& info);
Json tunnelInfoJson(const Tunnel::IpsecVtiTunnelInfo& info);
Json tunnelInfoJson(const Tunnel::VxlanTunnelInfo& info);

}  // namespace TunnelCtl
