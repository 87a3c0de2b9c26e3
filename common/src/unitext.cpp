// String resources: translated texts, looked up by identifier in a file of UTF-16 lines.
//
//   FF FE                         the byte-order mark
//   407:1F4=Guten Morgen CR LF    language, text identifier, text
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <span>

#include "line_file.h"
#include "owners.h"
#include "zebcs/encoding.h"
#include "zebcs/product.h"
#include "zebcs/unistr.h"

static_assert(std::endian::native == std::endian::little, "units are read as they are in the file");

namespace {

using Units = std::span<const ustring>;

constexpr ustring kCR = 0x0D;
constexpr ustring kLF = 0x0A;
constexpr size_t kLongestLine = 1024;  // read as one
constexpr u32 kNeutralLanguage = 0;

// The index of some units in others; nothing when they are not there.
std::optional<size_t> Find(Units units, Units wanted) {
  const auto bytes = std::as_bytes(units);
  for (size_t from = 0;;) {
    const void *const found = memmem(bytes.data() + from, bytes.size() - from, wanted.data(), wanted.size_bytes());
    if (found == nullptr) return std::nullopt;
    const auto index = static_cast<size_t>(static_cast<const std::byte *>(found) - bytes.data());
    if (index % sizeof(ustring) == 0) return index / sizeof(ustring);
    from = index + 1;  // the bytes are there, but not as units
  }
}

// The length of the line that `units` begin with, which is also where the next one begins. They are as many as a line
// may have, or all that are left. Nothing where no line is left.
std::optional<size_t> LineLength(Units units, size_t longest) {
  if (units.size() < 2) return std::nullopt;
  constexpr ustring kLineEnd[] = {kCR, kLF};
  const std::optional<size_t> end = Find(units, kLineEnd);
  // Kept: without a line end the last unit is left to the next line, or lost with the file's end; it would be expected
  // to stay.
  if (!end) return units.size() - 1;
  // The terminator of the longest line takes the place of its line feed, with which the next line then begins.
  return std::min(*end + std::size(kLineEnd), longest - 1);
}

// The lines of a file, behind its byte-order mark, through a window that moves over it.
class ResourceLines {
 public:
  explicit ResourceLines(FdGuard file) : m_file(std::move(file)) {}

  bool ReadByteOrderMark() {
    constexpr ustring kByteOrderMark = 0xFEFF;
    if (Window().empty() || Window().front() != kByteOrderMark) return false;
    ++m_position;
    return true;
  }

  // The next line with its line end, valid until the next call; nothing at the end of the file.
  std::optional<Units> Next() {
    const Units window = Window();
    const std::optional<size_t> length = LineLength(window, kLongestLine);
    if (!length) return std::nullopt;
    m_position += *length;
    return window.first(*length);
  }

 private:
  static constexpr size_t kRoom = 16384;

  // What a line may take of the units that are left.
  Units Window() {
    if (m_end - m_position < kLongestLine && !m_isAtEnd) Fill();
    return Units(m_units).subspan(m_position, std::min(m_end - m_position, kLongestLine));
  }

  void Fill() {
    std::copy(m_units + m_position, m_units + m_end, m_units);
    m_end -= m_position;
    m_position = 0;
    size_t bytes = m_end * sizeof(ustring);
    while (bytes < kLongestLine * sizeof(ustring)) {
      const ssize_t count = read(m_file.get(), reinterpret_cast<char *>(m_units) + bytes, sizeof m_units - bytes);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) {
        m_isAtEnd = true;
        break;
      }
      bytes += static_cast<size_t>(count);
    }
    m_end = bytes / sizeof(ustring);  // half a unit at the end of the file is none
  }

  FdGuard m_file;
  bool m_isAtEnd = false;
  size_t m_position = 0;
  size_t m_end = 0;
  ustring m_units[kRoom];
};

// The key of an entry.
class Key {
 public:
  Key(u32 languageId, u32 stringId) {
    char text[kRoom];
    const int length = std::snprintf(text, sizeof text, "%X:%X=", languageId, stringId);
    m_length = static_cast<size_t>(length);
    std::copy(text, text + m_length, m_units);
  }

  bool IsIn(Units line) const { return Find(line, {m_units, m_length}).has_value(); }

 private:
  static constexpr size_t kRoom = sizeof "FFFFFFFF:FFFFFFFF=";
  ustring m_units[kRoom];
  size_t m_length;
};

// The text of an entry, terminated.
class Text {
 public:
  // Takes a line that has the key. Where it begins with a line end, or has no "=" before one, there is no text.
  explicit Text(Units line) {
    const auto end = std::find_if(line.begin(), line.end(), [](ustring unit) { return unit == kCR || unit == kLF; });
    const auto start = std::find(std::reverse_iterator(end), line.rend(), ustring{'='}).base();
    m_isThere = start != line.begin();
    *std::copy(start, end, m_units) = 0;
  }

  const ustring *get() const { return m_isThere ? m_units : nullptr; }

 private:
  bool m_isThere;
  ustring m_units[kLongestLine];
};

// Looks a text up in a language and, where it is not there, in the neutral one, which `languageId` then is.
std::optional<Text> FindText(ResourceLines &lines, u32 stringId, u32 &languageId) {
  const Key key(languageId, stringId);
  const Key neutralKey(kNeutralLanguage, stringId);
  std::optional<Text> neutral;
  while (const std::optional<Units> whole = lines.Next()) {
    const Units line(whole->begin(), std::find(whole->begin(), whole->end(), ustring{0}));
    if (key.IsIn(line)) return Text(line);
    if (languageId != kNeutralLanguage && !neutral && neutralKey.IsIn(line)) neutral.emplace(line);
  }
  languageId = kNeutralLanguage;
  return neutral;
}

u32 DeliverMessage(const astring *pMessage, ustring *pDest, u32 *pDestSize) {
  ustring message[64];
  u32 room = std::size(message);
  (void)UTF8StrToUCS2Str(message, &room, pMessage);  // fits
  return SetUnicodeStringToDestination(message, pDest, pDestSize);
}

}  // namespace

u32 SetUnicodeStringToDestination(const ustring *pSrc, ustring *pDest, u32 *pDestSize) {
  const u32 size = pSrc == nullptr ? 0 : static_cast<u32>((Uni_strlen(pSrc) + 1) * sizeof(ustring));
  if (pDestSize == nullptr) return pDest == nullptr ? size : 0;
  const u32 room = *pDestSize;
  *pDestSize = size;
  if (pDest == nullptr || pSrc == nullptr || room < size) return 0;
  std::memcpy(pDest, pSrc, size);
  return size;
}

ustring *dc_fgetws(ustring *pStr, s32 numChar, FILE *fp) {
  if (pStr == nullptr || numChar < 1 || fp == nullptr) return nullptr;
  const off_t start = ftello(fp);
  if (start == -1) return nullptr;
  const auto room = static_cast<size_t>(numChar);
  const size_t count = std::fread(pStr, sizeof(ustring), room, fp);
  if (count == 1) return nullptr;  // Kept: a single unit is passed over; it would be expected to be a line.
  const std::optional<size_t> length = LineLength({pStr, count}, room);
  if (fseeko(fp, start + static_cast<off_t>(length.value_or(0) * sizeof(ustring)), SEEK_SET) != 0 || !length) {
    return nullptr;
  }
  pStr[*length] = 0;
  return pStr;
}

u32 GetUnicodeStringFromIDPathFile(u32 stringID, u32 *pLanguageId, const astring *pPathFileName, ustring *pDest,
                                   u32 *pDestSize) {
  u32 delivered = 0;
  if (pPathFileName == nullptr) {
    delivered = DeliverMessage("Invalid Path File Name", pDest, pDestSize);
  } else if (FdGuard file = OpenFile(pPathFileName, O_RDONLY); !file) {
    delivered = DeliverMessage("String resource not found", pDest, pDestSize);
  } else if (ResourceLines lines(std::move(file)); !lines.ReadByteOrderMark()) {
    delivered = DeliverMessage("Invalid string resource found", pDest, pDestSize);
  } else {
    u32 languageId = pLanguageId == nullptr ? kNeutralLanguage : *pLanguageId;
    if (languageId == 437 || languageId == 1033) languageId = kNeutralLanguage;
    const std::optional<Text> text = FindText(lines, stringID, languageId);
    if (pLanguageId != nullptr && *pLanguageId != languageId) *pLanguageId = languageId;
    if (text) delivered = SetUnicodeStringToDestination(text->get(), pDest, pDestSize);
  }
  // Kept: with too little room, or none, the size is 0 as well; the one needed would be expected.
  if (pDestSize != nullptr) *pDestSize = delivered;
  return delivered;
}
