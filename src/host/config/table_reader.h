// Reads the keys of one TOML table and reports unknown ones.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <toml++/toml.h>

#include "host/config/diagnostics.h"
#include "host/units.h"

namespace host::config {

Position PositionOf(const toml::node& node);

// Each operation looks up one key and checks its type and range. It returns nothing when the key is
// absent or, with a diagnostic, when the value cannot be used. Finish then reports every key that
// was not looked up. One table, one reader.
class TableReader {
 public:
  // title: the table's name in messages, for example "[wall]".
  TableReader(const toml::table& table, std::string title, Diagnostics& diagnostics)
      : table_(table), title_(std::move(title)), diagnostics_(diagnostics) {}

  // Null when the key is absent.
  const toml::node* Find(std::string_view key);
  std::optional<std::int64_t> Integer(std::string_view key, std::int64_t least, std::int64_t most);
  std::optional<double> Number(std::string_view key, double least, double most);
  std::optional<bool> Boolean(std::string_view key);
  std::optional<std::string> Text(std::string_view key);
  // A text that is not empty.
  std::optional<std::string> FilledText(std::string_view key);
  // The index of the choice.
  std::optional<std::size_t> Choice(std::string_view key, const std::vector<std::string>& choices);
  // Seconds as a number, or a text with a unit.
  std::optional<Time> Duration(std::string_view key, Time least, Time most);
  const toml::table* Table(std::string_view key);
  // Texts, numbers and booleans of a table, as texts.
  std::optional<std::map<std::string, std::string>> Options(std::string_view key);
  // The tables of an array of tables; empty when absent.
  std::vector<const toml::table*> Tables(std::string_view key);

  void Finish();

  Position PositionOf(std::string_view key) const;
  // Of all keys and, as "options.KEY", of those of a table "options".
  Places AllPlaces() const;
  // Of the table itself.
  Position position() const { return config::PositionOf(table_); }
  const std::string& title() const { return title_; }
  Diagnostics& diagnostics() { return diagnostics_; }
  // A mistake in the value of a key: "key" and then what is wrong with it.
  void Error(std::string_view key, const std::string& what);
  void Warning(std::string_view key, const std::string& what);

 private:
  void WrongType(std::string_view key, const std::string& wanted, const toml::node& node);

  const toml::table& table_;
  const std::string title_;
  Diagnostics& diagnostics_;
  std::vector<std::string> known_;
};

}  // namespace host::config
