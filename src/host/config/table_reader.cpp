#include "host/config/table_reader.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "host/config/diagnostics.h"
#include "host/config/value_text.h"

namespace host::config {

namespace {

std::string Quoted(std::string_view text) {
  return "\"" + std::string(text) + "\"";
}

const char* TypeName(const toml::node& node) {
  switch (node.type()) {
    case toml::node_type::string:
      return "a text";
    case toml::node_type::integer:
    case toml::node_type::floating_point:
      return "a number";
    case toml::node_type::boolean:
      return "true or false";
    case toml::node_type::array:
      return "a list";
    case toml::node_type::table:
      return "a table";
    default:
      return "a date or time";
  }
}

std::string Short(double number) {
  std::ostringstream text;
  text << number;
  return text.str();
}

std::string Short(Time time) {
  return Short(static_cast<double>(time) / kSecond) + " s";
}

template <typename Value>
std::string OutOfRange(Value least, Value most, const std::string& given) {
  std::ostringstream text;
  text << "must lie between " << least << " and " << most << ", not " << given;
  return text.str();
}

}  // namespace

Position PositionOf(const toml::node& node) {
  const toml::source_position begin = node.source().begin;
  return {std::max<std::size_t>(begin.line, 1), std::max<std::size_t>(begin.column, 1)};
}

Position TableReader::PositionOf(std::string_view key) const {
  const toml::node* const node = table_.get(key);
  return node != nullptr ? config::PositionOf(*node) : position();
}

void TableReader::Error(std::string_view key, const std::string& what) {
  diagnostics_.Error(PositionOf(key), Quoted(key) + " " + what, std::string(key));
}

void TableReader::Warning(std::string_view key, const std::string& what) {
  diagnostics_.Warning(PositionOf(key), Quoted(key) + " " + what, std::string(key));
}

void TableReader::WrongType(std::string_view key, const std::string& wanted,
                            const toml::node& node) {
  Error(key, "must be " + wanted + ", not " + TypeName(node));
}

const toml::node* TableReader::Find(std::string_view key) {
  if (std::find(known_.begin(), known_.end(), key) == known_.end()) {
    known_.emplace_back(key);
  }
  return table_.get(key);
}

std::optional<std::int64_t> TableReader::Integer(std::string_view key, std::int64_t least,
                                                 std::int64_t most) {
  const toml::node* const node = Find(key);
  if (node == nullptr) {
    return {};
  }
  const auto value = node->is_integer() ? node->value<std::int64_t>() : std::nullopt;
  if (!value) {
    if (node->is_floating_point()) {
      Error(key, "must be a whole number");
    } else {
      WrongType(key, "a whole number", *node);
    }
    return {};
  }
  if (*value < least || *value > most) {
    Error(key, OutOfRange(least, most, std::to_string(*value)));
    return {};
  }
  return value;
}

std::optional<double> TableReader::Number(std::string_view key, double least, double most) {
  const toml::node* const node = Find(key);
  if (node == nullptr) {
    return {};
  }
  const auto value = node->is_number() ? node->value<double>() : std::nullopt;
  if (!value) {
    WrongType(key, "a number", *node);
    return {};
  }
  if (!(*value >= least && *value <= most)) {
    Error(key, OutOfRange(least, most, Short(*value)));
    return {};
  }
  return value;
}

std::optional<bool> TableReader::Boolean(std::string_view key) {
  const toml::node* const node = Find(key);
  if (node == nullptr) {
    return {};
  }
  if (!node->is_boolean()) {
    WrongType(key, "true or false", *node);
    return {};
  }
  return node->value<bool>();
}

std::optional<std::string> TableReader::Text(std::string_view key) {
  const toml::node* const node = Find(key);
  if (node == nullptr) {
    return {};
  }
  if (!node->is_string()) {
    WrongType(key, "a text in quotes", *node);
    return {};
  }
  return node->value<std::string>();
}

std::optional<std::string> TableReader::FilledText(std::string_view key) {
  auto text = Text(key);
  if (text && text->empty()) {
    Error(key, "must not be empty");
    return {};
  }
  return text;
}

std::optional<std::size_t> TableReader::Choice(std::string_view key,
                                               const std::vector<std::string>& choices) {
  const auto text = Text(key);
  if (!text) {
    return {};
  }
  const auto found = std::find(choices.begin(), choices.end(), *text);
  if (found != choices.end()) {
    return static_cast<std::size_t>(found - choices.begin());
  }
  std::string list;
  for (std::size_t i = 0; i < choices.size(); ++i) {
    list += (i == 0 ? "" : i + 1 == choices.size() ? " or " : ", ") + Quoted(choices[i]);
  }
  Error(key, "must be " + list + ", not " + Quoted(*text));
  return {};
}

std::optional<Time> TableReader::Duration(std::string_view key, Time least, Time most) {
  const toml::node* const node = Find(key);
  if (node == nullptr) {
    return {};
  }
  std::optional<Time> time;
  if (node->is_number()) {
    const double seconds = node->value<double>().value_or(-1);
    if (std::isfinite(seconds) && std::abs(seconds) < 1e9) {
      time = static_cast<Time>(std::llround(seconds * kSecond));
    }
  } else if (node->is_string()) {
    time = ParseDuration(*node->value<std::string>());
  } else {
    WrongType(key, "a time such as 5, 0.5 or \"250 ms\"", *node);
    return {};
  }
  if (!time) {
    Error(key, "must be seconds, or a text with a unit: \"250 ms\", \"5 s\", \"2 min\", \"1 h\"");
    return {};
  }
  if (*time < least || *time > most) {
    Error(key, OutOfRange(Short(least), Short(most), Short(*time)));
    return {};
  }
  return time;
}

const toml::table* TableReader::Table(std::string_view key) {
  const toml::node* const node = Find(key);
  if (node != nullptr && !node->is_table()) {
    WrongType(key, "a table", *node);
  }
  return node != nullptr ? node->as_table() : nullptr;
}

std::optional<std::map<std::string, std::string>> TableReader::Options(std::string_view key) {
  const toml::table* const table = Table(key);
  if (table == nullptr) {
    return {};
  }
  std::map<std::string, std::string> options;
  for (const auto& [name, value] : *table) {
    if (const auto* text = value.as_string()) {
      options.emplace(name.str(), text->get());
    } else if (const auto* integer = value.as_integer()) {
      options.emplace(name.str(), std::to_string(integer->get()));
    } else if (const auto* number = value.as_floating_point()) {
      options.emplace(name.str(), Short(number->get()));
    } else if (const auto* flag = value.as_boolean()) {
      options.emplace(name.str(), flag->get() ? "1" : "0");
    } else {
      diagnostics_.Error(config::PositionOf(value),
                         Quoted(name.str()) + " must be a text, a number, true or false");
    }
  }
  return options;
}

std::vector<const toml::table*> TableReader::Tables(std::string_view key) {
  const toml::node* const node = Find(key);
  std::vector<const toml::table*> tables;
  if (node == nullptr) {
    return tables;
  }
  const toml::array* const array = node->as_array();
  if (array == nullptr) {
    Error(key, "is written as [[" + std::string(key) + "]], once for each");
    return tables;
  }
  for (const toml::node& element : *array) {
    if (const toml::table* table = element.as_table()) {
      tables.push_back(table);
    } else {
      diagnostics_.Error(config::PositionOf(element),
                         "each " + Quoted(key) + " must be a table, not " + TypeName(element));
    }
  }
  return tables;
}

Places TableReader::AllPlaces() const {
  Places places;
  for (const auto& [key, value] : table_) {
    places.emplace(key.str(), config::PositionOf(value));
  }
  if (const toml::table* const options = table_["options"].as_table()) {
    for (const auto& [key, value] : *options) {
      places.emplace("options." + std::string(key.str()), config::PositionOf(value));
    }
  }
  return places;
}

void TableReader::Finish() {
  for (const auto& [key, value] : table_) {
    if (std::find(known_.begin(), known_.end(), key.str()) != known_.end()) {
      continue;
    }
    std::string message = title_ + " has no key " + Quoted(key.str());
    const auto nearest = NearestName(key.str(), known_);
    if (nearest) {
      message += "; did you mean " + Quoted(*nearest) + "?";
    } else {
      message += "; it knows";
      for (std::size_t i = 0; i < known_.size(); ++i) {
        message += (i == 0 ? " " : ", ") + known_[i];
      }
    }
    const toml::source_position begin = key.source().begin;
    diagnostics_.Add({.severity = Diagnostic::Severity::kError,
                      .position = {begin.line, begin.column},
                      .message = std::move(message),
                      .key = std::string(key.str()),
                      .nearest = nearest});
  }
}

}  // namespace host::config
