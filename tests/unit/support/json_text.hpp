#pragma once

#include <json/json.h>

#include <memory>
#include <string>

namespace support {

/// @return the value of a JSON text; null, which no test asks for, when it is malformed.
inline Json::Value json(const std::string& text) {
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
  return value;
}

}  // namespace support
