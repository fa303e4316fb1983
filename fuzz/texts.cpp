// Any bytes as a text to validate and as a timestamp, and the timestamp of any instant.
//
// seed: someone.else+tag@mail.example.org
// seed: https://www.example.org/a_b|c-d
// seed: -1,234,567.89e-10
// seed: 2024-02-29 23:59:59.999

#include <re2/re2.h>

#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/validation.h"
#include "fuzz/setting.h"

using namespace marbleway;
using namespace std::chrono;

void fuzz::run(std::string_view bytes) {
  const Text text(bytes);
  static const RE2 number(  // in the C locale, where "," groups thousands
      R"([+-]?(([0-9]+|[0-9]{1,3}(,[0-9]{3})+)(\.[0-9]*)?|\.[0-9]+)([eE][+-]?[0-9]+)?)",
      RE2::Latin1);
  const std::string valid(text.view());
  require(isNumber(Value(text)) == RE2::FullMatch(valid, number), "a number matches its pattern");
  require(!isAttributeEmail(text) || isLinkEmail(text), "an attribute's address can be linked");
  require(!isWebAddress(text) || valid.starts_with("http"), "a web address has its scheme");
  require(!isPhoneNumber(text) || isNumber(Value(text)), "a phone number consists of digits");
  require(!isAbsoluteURL(text) || valid.find(':') > 0, "an absolute URL has a scheme");

  const auto stampAt = [](sys_time<nanoseconds> now) {
    fuzz::setting().time->setWallClock(now);
    return getUTCTimeStamp();
  };
  // From 1823 to 2116.
  const sys_time<nanoseconds> now{nanoseconds(fuzz::integerIn(bytes) / 2)};
  require(timeOf(stampAt(now)) == floor<milliseconds>(now), "a timestamp reads back");
  const auto time = timeOf(bytes);
  if (time && abs(time->time_since_epoch()) < hours(24 * 365 * 140)) {
    require(stampAt(*time) == bytes, "a text that is a timestamp is its instant's");
  }
}
