// The runtime's exceptions. Every one carries its full text in what().
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace Vela {

class Exception : public std::runtime_error {
  public:
   using std::runtime_error::runtime_error;
};

// A value outside its type's bounds. The text names the type and its bounds:
//   "<type>::<field> < <type>::<minName> or > <type>::<maxName> not allowed"
class RangeException : public Exception {
  public:
   using Exception::Exception;
   static RangeException forType(std::string_view typeName, std::string_view field = "value",
                                 std::string_view minName = "min",
                                 std::string_view maxName = "max");
};

// A null pointer handed where an object is required.
class NullArgumentException : public Exception {
  public:
   using Exception::Exception;
};

// An entity created a second time under a name that already exists.
class RecreationException : public Exception {
  public:
   using Exception::Exception;
};

// Text could not be parsed into a value; the text names the attribute being read.
class ParseException : public Exception {
  public:
   using Exception::Exception;
};

}  // namespace Vela
