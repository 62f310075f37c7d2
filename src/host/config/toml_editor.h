// TomlEditor: changes single values of a TOML text and leaves everything else of it as it is.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <toml++/toml.h>

namespace host::config {

// Works on the source regions that the parser gives: what the author wrote (comments, order, forms
// of values, line ends) is copied, edits are put in between. One edit for each value. What cannot
// be expressed, such as a value of a table that is spread over several headers, results in a wrong
// or invalid text: the caller reads the result again.
class TomlEditor {
 public:
  using Path = std::vector<std::string>;

  // Throws toml::parse_error.
  explicit TomlEditor(std::string text);

  const toml::table& root() const { return root_; }
  const std::string& eol() const { return eol_; }

  // table: the root, or one that has a header of its own. path: keys from there. value: as TOML
  // writes it. It replaces the former value; a new key is added at the end of its table.
  void Set(const toml::table& table, const Path& path, const std::string& value);
  // Removes a key with its line, or from its inline table. Does nothing when there is none.
  void Remove(const toml::table& table, const Path& path);

  // A table of an array of tables, as it is (index) or a new one (text, with its header).
  struct Element {
    std::optional<std::size_t> index;
    std::string text;
  };
  // The tables of the array in this order, each with the comments directly above it. Those that
  // stay share their places; a new one follows the one before it. lead: text before the first one.
  void Arrange(const toml::array& tables, std::span<const Element> wanted, const std::string& lead);

  std::string Text() const;

 private:
  struct Range {
    std::size_t begin = 0;
    std::size_t end = 0;
  };
  struct Replacement {
    std::size_t end = 0;
    std::string text;
  };

  std::size_t OffsetOf(const toml::source_position& position) const;
  Range RangeOf(const toml::node& node) const;
  std::string_view Line(std::size_t number) const;  // from 1, with its end
  std::string_view LineAt(std::size_t begin) const;
  std::string_view LineBefore(std::size_t end) const;
  std::size_t LineEnd(std::size_t offset) const;  // after the line end
  bool HasHeader(const toml::table& table) const;
  // After the last line of the table's own keys.
  std::size_t EndOfBody(const toml::table& table) const;
  // The last line of the node and all that is in it.
  std::size_t LastLine(const toml::node& node) const;
  bool IsWithinValue(std::size_t line) const;
  // The range of the table's header and keys, with the comments that belong to it.
  Range BlockOf(const toml::table& table) const;
  void Insert(std::size_t offset, const std::string& text) { insertions_[offset] += text; }
  void InsertInline(const toml::table& table, const std::string& entry);
  void RemoveInline(const toml::table& table, const toml::node& value);
  void RemoveLines(const toml::node& node);
  // The range with the edits. An insertion belongs to what ends at its offset.
  std::string Copy(Range range) const;

  const std::string text_;
  const std::string eol_;
  std::vector<std::size_t> lines_;  // offsets of their beginnings
  toml::table root_;
  std::vector<std::pair<std::size_t, std::size_t>> values_;  // first and last line of each
  std::map<std::size_t, std::string> insertions_;
  std::map<std::size_t, Replacement> replacements_;
};

// Bare where TOML allows it, otherwise in quotes; joined by dots.
std::string TomlKey(const TomlEditor::Path& path);

}  // namespace host::config
