#include "host/config/toml_editor.h"

#include <algorithm>

#include "host/config/value_text.h"
#include "host/config/wall_file.h"

namespace host::config {
namespace {

bool IsBlank(std::string_view line) {
  return line.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

bool IsComment(std::string_view line) {
  const std::size_t first = line.find_first_not_of(" \t");
  return first != std::string_view::npos && line[first] == '#';
}

bool IsArrayOfTables(const toml::node& node) {
  const toml::array* const array = node.as_array();
  const toml::table* const first =
      array != nullptr && !array->empty() ? array->get(0)->as_table() : nullptr;
  return first != nullptr && !first->is_inline();
}

// A value in one place: not a table with headers or dotted keys.
bool IsValue(const toml::node& node) {
  const toml::table* const table = node.as_table();
  return table != nullptr ? table->is_inline() : !IsArrayOfTables(node);
}

// Calls visit for every value of a table, under all its headers and dotted keys.
template <typename Visit>
void ForEachValue(const toml::node& node, const Visit& visit) {
  if (IsValue(node)) {
    visit(node);
  } else if (const toml::table* const table = node.as_table()) {
    for (const auto& [key, inner] : *table) {
      ForEachValue(inner, visit);
    }
  } else {
    for (const toml::node& inner : *node.as_array()) {
      ForEachValue(inner, visit);
    }
  }
}

}  // namespace

std::string TomlKey(const TomlEditor::Path& path) {
  std::string text;
  for (const std::string& key : path) {
    const bool isBare = !key.empty() && key.find_first_not_of(
                                            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                            "0123456789_-") == std::string::npos;
    text += (text.empty() ? "" : ".") + (isBare ? key : QuotedToml(key));
  }
  return text;
}

TomlEditor::TomlEditor(std::string text)
    : text_(std::move(text)),
      eol_(text_.find("\r\n") != std::string::npos ? "\r\n" : "\n"),
      lines_{0},
      root_(toml::parse(std::string_view(text_))) {
  for (std::size_t i = 0; i < text_.size(); ++i) {
    if (text_[i] == '\n') {
      lines_.push_back(i + 1);
    }
  }
  ForEachValue(root_, [this](const toml::node& value) {
    values_.emplace_back(value.source().begin.line, value.source().end.line);
  });
}

// Columns count characters, but not a byte order mark.
std::size_t TomlEditor::OffsetOf(const toml::source_position& position) const {
  constexpr std::string_view kMark = "\xEF\xBB\xBF";
  std::size_t offset = lines_.at(position.line - 1);
  if (offset == 0 && text_.starts_with(kMark)) {
    offset += kMark.size();
  }
  for (std::size_t column = 1; column < position.column && offset < text_.size(); ++column) {
    do {
      ++offset;
    } while (offset < text_.size() && (static_cast<unsigned char>(text_[offset]) & 0xC0) == 0x80);
  }
  return offset;
}

TomlEditor::Range TomlEditor::RangeOf(const toml::node& node) const {
  return {OffsetOf(node.source().begin), OffsetOf(node.source().end)};
}

std::string_view TomlEditor::Line(std::size_t number) const {
  return LineAt(lines_[number - 1]);
}

std::string_view TomlEditor::LineAt(std::size_t begin) const {
  return std::string_view(text_).substr(begin, LineEnd(begin) - begin);
}

std::string_view TomlEditor::LineBefore(std::size_t end) const {
  const std::size_t begin = *(std::lower_bound(lines_.begin(), lines_.end(), end) - 1);
  return std::string_view(text_).substr(begin, end - begin);
}

std::size_t TomlEditor::LineEnd(std::size_t offset) const {
  const std::size_t end = text_.find('\n', offset);
  return end == std::string::npos ? text_.size() : end + 1;
}

bool TomlEditor::HasHeader(const toml::table& table) const {
  const std::size_t begin = OffsetOf(table.source().begin);
  return !table.is_inline() && begin < text_.size() && text_[begin] == '[';
}

std::size_t TomlEditor::EndOfBody(const toml::table& table) const {
  std::size_t end = &table == &root_ ? 0 : LineEnd(OffsetOf(table.source().begin));
  for (const auto& [key, node] : table) {
    if (IsValue(node)) {
      end = std::max(end, LineEnd(RangeOf(node).end));
    } else if (const toml::table* const dotted = node.as_table(); dotted && !HasHeader(*dotted)) {
      end = std::max(end, EndOfBody(*dotted));
    }
  }
  return end;
}

std::size_t TomlEditor::LastLine(const toml::node& node) const {
  std::size_t last = node.source().begin.line;
  ForEachValue(node, [&](const toml::node& value) {
    last = std::max<std::size_t>(last, value.source().end.line);
  });
  if (const toml::table* const table = node.as_table(); table && !table->is_inline()) {
    for (const auto& [key, inner] : *table) {
      last = std::max(last, LastLine(inner));  // a header without keys
    }
  }
  return last;
}

bool TomlEditor::IsWithinValue(std::size_t line) const {
  return std::any_of(values_.begin(), values_.end(), [line](const auto& value) {
    return value.first <= line && line <= value.second;
  });
}

TomlEditor::Range TomlEditor::BlockOf(const toml::table& table) const {
  std::size_t first = table.source().begin.line;
  while (first > 1 && IsComment(Line(first - 1)) && !IsWithinValue(first - 1)) {
    --first;
  }
  const std::size_t last = LastLine(table);
  // Comments directly below belong to it unless something else follows them directly.
  std::size_t after = last;
  while (after < lines_.size() && IsComment(Line(after + 1))) {
    ++after;
  }
  const bool isOfNext = after < lines_.size() && !IsBlank(Line(after + 1));
  return {lines_[first - 1], LineEnd(lines_[(isOfNext ? last : after) - 1])};
}

void TomlEditor::Set(const toml::table& table, const Path& path, const std::string& value) {
  const toml::table* owner = &table;  // whose body gets a new line
  Path rest;                          // keys from there
  const toml::table* at = &table;
  for (std::size_t i = 0; i < path.size(); ++i) {
    rest.push_back(path[i]);
    const toml::node* const node = at->get(path[i]);
    const toml::table* const inner = node != nullptr ? node->as_table() : nullptr;
    if (inner != nullptr && i + 1 < path.size()) {
      at = inner;
      if (HasHeader(*inner)) {
        owner = inner;
        rest.clear();
      }
      continue;
    }
    if (node != nullptr && i + 1 == path.size()) {
      const Range range = RangeOf(*node);
      replacements_[range.begin] = {range.end, value};
      return;
    }
    std::string key = TomlKey(Path(path.begin() + static_cast<std::ptrdiff_t>(i), path.end()));
    if (at->is_inline()) {
      InsertInline(*at, key.append(" = ").append(value));
      return;
    }
    rest.insert(rest.end(), path.begin() + static_cast<std::ptrdiff_t>(i) + 1, path.end());
    break;
  }
  const std::size_t offset = EndOfBody(*owner);
  const bool isLineOpen = offset > 0 && text_[offset - 1] != '\n' && !insertions_.contains(offset);
  Insert(offset, (isLineOpen ? eol_ : "") + TomlKey(rest) + " = " + value + eol_);
}

void TomlEditor::InsertInline(const toml::table& table, const std::string& entry) {
  std::size_t offset = RangeOf(table).begin + 1;
  for (const auto& [key, node] : table) {
    ForEachValue(node,
                 [&](const toml::node& value) { offset = std::max(offset, RangeOf(value).end); });
  }
  const bool isFirst = table.empty() && !insertions_.contains(offset);
  Insert(offset, (isFirst ? " " : ", ") + entry + (table.empty() ? " " : ""));
}

void TomlEditor::RemoveInline(const toml::table& table, const toml::node& value) {
  const Range own = RangeOf(value);
  std::size_t before = RangeOf(table).begin + 1;  // where the entry before it ends
  std::optional<std::size_t> next;                // where the one behind it begins
  for (const auto& [key, node] : table) {
    const Range other = RangeOf(node);
    if (other.end < own.begin) {
      before = std::max(before, other.end);
    } else if (other.begin > own.end) {
      const std::size_t begin = OffsetOf(key.source().begin);
      next = std::min(next.value_or(begin), begin);
    }
  }
  if (next) {
    for (const auto& [key, node] : table) {
      if (&node == &value) {
        replacements_[OffsetOf(key.source().begin)] = {*next, ""};
      }
    }
  } else {
    replacements_[before] = {own.end, ""};
  }
}

void TomlEditor::RemoveLines(const toml::node& node) {
  const auto remove = [this](const toml::source_region& region) {
    const std::size_t begin = lines_[region.begin.line - 1];
    replacements_[begin] = {LineEnd(OffsetOf(region.end)), ""};
  };
  ForEachValue(node, [&](const toml::node& value) { remove(value.source()); });
  const toml::table* const table = node.as_table();
  if (table != nullptr && HasHeader(*table)) {
    remove(table->source());
  }
}

void TomlEditor::Remove(const toml::table& table, const Path& path) {
  const toml::table* at = &table;
  for (std::size_t i = 0; at != nullptr && i < path.size(); ++i) {
    const toml::node* const node = at->get(path[i]);
    if (node != nullptr && i + 1 == path.size()) {
      at->is_inline() ? RemoveInline(*at, *node) : RemoveLines(*node);
    }
    at = node != nullptr ? node->as_table() : nullptr;
  }
}

void TomlEditor::Arrange(const toml::array& tables, std::span<const Element> wanted,
                         const std::string& lead) {
  std::vector<Range> blocks;
  for (const toml::node& table : tables) {
    blocks.push_back(BlockOf(*table.as_table()));
  }
  std::vector<bool> stays(blocks.size(), false);
  for (const Element& element : wanted) {
    if (element.index) {
      stays[*element.index] = true;
    }
  }
  // Each table that stays has a place; if none stays, the first place is used.
  if (std::find(stays.begin(), stays.end(), true) == stays.end()) {
    stays.at(0) = true;
  }
  std::vector<std::string> texts;
  for (const Element& element : wanted) {
    std::string text = element.index ? Copy(blocks[*element.index]) : element.text;
    const bool isFirst = texts.empty();
    const bool hasPlaceOfItsOwn =
        element.index && std::any_of(wanted.data(), &element, [](const Element& before) {
          return before.index.has_value();
        });
    if (isFirst || hasPlaceOfItsOwn) {
      texts.push_back((isFirst ? lead : "") + text);
    } else {
      texts.back() += (texts.back().ends_with('\n') ? "" : eol_) + eol_ + text;
    }
  }
  std::size_t taken = 0;
  std::size_t done = 0;  // where the range before ends
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    // Edits within the block are in the texts by now.
    const Range& own = blocks[i];
    insertions_.erase(insertions_.upper_bound(own.begin), insertions_.upper_bound(own.end));
    replacements_.erase(replacements_.lower_bound(own.begin), replacements_.lower_bound(own.end));
    Range range = own;
    std::string text;
    if (stays[i] && taken < texts.size()) {
      text = std::move(texts[taken++]);
      text += own.end < text_.size() && !text.ends_with('\n') ? eol_ : "";
    } else {
      // Removed with the blank lines after it, at the end of the text with those before it.
      while (range.end < text_.size() && IsBlank(LineAt(range.end))) {
        range.end = LineEnd(range.end);
      }
      while (range.end == text_.size() && range.begin > done && IsBlank(LineBefore(range.begin))) {
        range.begin -= LineBefore(range.begin).size();
      }
    }
    replacements_[range.begin] = {range.end, std::move(text)};
    done = range.end;
  }
}

std::string TomlEditor::Copy(Range range) const {
  std::string copy;
  for (std::size_t at = range.begin; at < range.end;) {
    const auto replacement = replacements_.find(at);
    if (replacement != replacements_.end()) {
      copy += replacement->second.text;
      at = replacement->second.end;
    } else {
      const auto change = replacements_.upper_bound(at);
      const auto insertion = insertions_.upper_bound(at);
      std::size_t next = range.end;
      next = change != replacements_.end() ? std::min(next, change->first) : next;
      next = insertion != insertions_.end() ? std::min(next, insertion->first) : next;
      copy.append(text_, at, next - at);
      at = next;
    }
    if (const auto insertion = insertions_.find(at); insertion != insertions_.end()) {
      copy += insertion->second;
    }
  }
  return copy;
}

std::string TomlEditor::Text() const {
  const auto first = insertions_.find(0);
  return (first != insertions_.end() ? first->second : "") + Copy({0, text_.size()});
}

}  // namespace host::config
