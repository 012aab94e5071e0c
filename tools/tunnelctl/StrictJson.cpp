#include "StrictJson.h"

#include <vector>

#include "Description.h"

namespace TunnelCtl {

using json = nlohmann::json;

namespace {

// The line of byte `offset` (1-based, as nlohmann counts) in `text`.
size_t lineOf(const std::string& text, size_t offset) {
   size_t line = 1;
   for (size_t i = 0; i + 1 < offset && i < text.size(); ++i) {
      if (text[i] == '\n') ++line;
   }
   return line;
}

// nlohmann's text is "[json.exception.parse_error.101] parse error at line L, column C: <what>";
// the line is ours to give, the rest is kept.
std::string syntaxReason(std::string what) {
   if (auto p = what.find("]: "); p != std::string::npos) what = what.substr(p + 3);
   if (auto p = what.find("] "); p != std::string::npos) what = what.substr(p + 2);
   if (auto p = what.find(": "); what.rfind("parse error", 0) == 0 && p != std::string::npos) {
      what = what.substr(p + 2);
   }
   return what;
}

// Follows the parser's events to know where each value is. Frames are reused, not freed, so a
// large file costs no allocation per object once the deepest level has been seen.
class PlaceTracker {
  public:
   PlaceTracker(const std::string& file, const JsonCompleted& completed)
       : file_(file), completed_(completed) {}

   bool event(json::parse_event_t event, json& parsed) {
      using E = json::parse_event_t;
      switch (event) {
         case E::object_start:
         case E::array_start:
            enterElement();
            if (depth_ >= kMaxJsonDepth) {
               fail("nesting deeper than " + std::to_string(kMaxJsonDepth) + " levels");
            }
            if (frames_.size() == depth_) frames_.emplace_back();
            frames_[depth_] = Frame{event == E::array_start, 0, path_.size(), {}};
            frames_[depth_].keys.clear();
            ++depth_;
            return true;
         case E::key: {
            Frame& f = frames_[depth_ - 1];
            const std::string& key = parsed.get_ref<const std::string&>();
            path_.resize(f.pathLen);
            if (depth_ > 1) path_ += '.';
            path_ += key;
            for (const std::string& k : f.keys) {
               if (k == key) fail("duplicate key '" + key + "'");
            }
            f.keys.push_back(key);
            return true;
         }
         case E::value:
            enterElement();
            return complete(parsed);
         case E::object_end:
         case E::array_end:
            --depth_;
            path_.resize(frames_[depth_].pathLen);
            return complete(parsed);
      }
      return true;
   }

  private:
   struct Frame {
      bool array = false;
      size_t next = 0;     // arrays: index of the next element
      size_t pathLen = 0;  // length of the container's own path
      std::vector<std::string> keys;
   };

   // A value starts: inside an array it is the next element.
   void enterElement() {
      if (depth_ == 0 || !frames_[depth_ - 1].array) return;
      Frame& f = frames_[depth_ - 1];
      path_.resize(f.pathLen);
      path_ += '[';
      path_ += std::to_string(f.next);
      path_ += ']';
   }

   bool complete(json& parsed) {
      bool keep = true;
      if (completed_ && depth_ > 0) keep = completed_(JsonPlace{path_, int(depth_)}, parsed);
      if (depth_ > 0 && frames_[depth_ - 1].array) ++frames_[depth_ - 1].next;
      return keep;
   }

  public:
   [[noreturn]] void fail(const std::string& what) const {
      throw DescriptionError(file_ + ": " + (path_.empty() ? "(top level)" : path_) + ": " + what);
   }

  private:
   const std::string& file_;
   const JsonCompleted& completed_;
   std::vector<Frame> frames_;
   size_t depth_ = 0;
   std::string path_;
};

// Non-ASCII prints as \uXXXX, so an excerpt is plain ASCII whatever the file held.
std::string asciiJson(const json& v) {
   return v.dump(-1, ' ', true, nlohmann::detail::error_handler_t::replace);
}

// Appends `v`'s JSON text to `out` while `out` is under `budget`; false when something was left
// out. A long string is cut before it is quoted, so a megabyte of text costs nothing here.
bool appendExcerpt(const json& v, std::string& out, size_t budget) {
   if (v.is_structured()) {
      out += v.is_object() ? '{' : '[';
      bool first = true;
      for (auto it = v.begin(); it != v.end(); ++it) {
         if (out.size() >= budget) return false;
         if (!first) out += ", ";
         first = false;
         if (v.is_object()) out += asciiJson(json(it.key())) + ": ";
         if (!appendExcerpt(it.value(), out, budget)) return false;
      }
      out += v.is_object() ? '}' : ']';
      return true;
   }
   if (v.is_string() && v.get_ref<const std::string&>().size() > budget) {
      out += asciiJson(json(v.get_ref<const std::string&>().substr(0, budget)));
      return false;
   }
   out += asciiJson(v);
   return true;
}

}  // namespace

json parseStrictJson(const std::string& text, const std::string& file,
                     const JsonCompleted& completed) {
   PlaceTracker tracker(file, completed);
   try {
      return json::parse(
          text, [&](int, json::parse_event_t e, json& parsed) { return tracker.event(e, parsed); });
   } catch (const json::parse_error& e) {
      throw DescriptionError(file + ":" + std::to_string(lineOf(text, e.byte)) + ": " +
                             syntaxReason(e.what()));
   } catch (const json::out_of_range& e) {
      // A number no JSON value holds ("number overflow parsing '<all its digits>'").
      std::string number = e.what();
      const auto open = number.find('\'');
      number = open == std::string::npos ? "" : number.substr(open + 1);
      if (!number.empty() && number.back() == '\'') number.pop_back();
      if (number.size() > 40) number = number.substr(0, 40) + "...";
      tracker.fail("a number too large to read: " + number);
   }
}

std::string excerpt(const json& v) {
   constexpr size_t kBudget = 60;
   std::string out;
   bool whole = appendExcerpt(v, out, kBudget);
   if (out.size() > kBudget) {
      out.resize(kBudget);
      whole = false;
   }
   if (!whole) out += "...";
   return out;
}

}  // namespace TunnelCtl
