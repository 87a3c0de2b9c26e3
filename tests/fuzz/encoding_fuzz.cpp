// The converters between encodings beside plain ones: the size that is asked for, and what comes into every room.
#include <clocale>
#include <cwchar>
#include <vector>

#include "fuzzer.h"
#include "guarded_buffer.h"
#include "zebcs/encoding.h"
#include "zebcs/zebcs.h"

namespace {

constexpr unsigned char kFill = sandbox::GuardedBuffer::kFill;
constexpr size_t kGuardedSize = size_t{128} * 1024;

// Memory that ends where nobody may write, with bytes in front of it that must stay. Made once, for all inputs.
template <class Unit>
class Room {
 public:
  explicit Room(size_t units) : m_units(units) {
    static sandbox::GuardedBuffer l_buffer(kGuardedSize);
    FUZZ_CHECK(units * sizeof(Unit) + kBefore <= kGuardedSize);
    m_data = reinterpret_cast<Unit *>(l_buffer.data<char>() + kGuardedSize - units * sizeof(Unit));
    std::memset(bytes() - kBefore, kFill, units * sizeof(Unit) + kBefore);
  }

  Unit *data() { return m_data; }

  // Whether the room begins with these units and nothing else in it, or in front of it, was written.
  bool HoldsOnly(const std::vector<Unit> &expected) const {
    if (expected.size() > m_units) return false;
    const size_t size = expected.size() * sizeof(Unit);
    return (size == 0 || std::memcmp(m_data, expected.data(), size) == 0) && IsFill(bytes() - kBefore, kBefore) &&
           IsFill(bytes() + size, m_units * sizeof(Unit) - size);
  }

 private:
  static constexpr size_t kBefore = 32;
  char *bytes() const { return reinterpret_cast<char *>(m_data); }

  static bool IsFill(const char *p, size_t size) {
    static const std::string l_fill(kGuardedSize, static_cast<char>(kFill));
    return std::memcmp(p, l_fill.data(), size) == 0;
  }

  size_t m_units;
  Unit *m_data;
};

// A copy of a text, with its terminator, behind which nobody may read.
template <class Unit>
const Unit *Source(const std::vector<Unit> &text) {
  static sandbox::GuardedBuffer l_buffer(kGuardedSize);
  const size_t size = (text.size() + 1) * sizeof(Unit);
  char *const start = l_buffer.data<char>() + kGuardedSize - size;
  std::memset(start, 0, size);
  if (!text.empty()) std::memcpy(start, text.data(), size - sizeof(Unit));
  return reinterpret_cast<const Unit *>(start);
}

// What a converter makes of a text: a piece for each character up to the first that it refuses, and the status then.
template <class Unit>
struct Conversion {
  std::vector<Unit> units;
  std::vector<size_t> ends = {0};  // where a piece may begin or end
  s32 status = SM_STATUS_SUCCESS;

  template <class Piece>
  void Add(const Piece &piece) {
    units.insert(units.end(), piece.begin(), piece.end());
    ends.push_back(units.size());
  }
};

// All rooms where that is not too many, and those at the edges.
std::vector<u32> RoomsFor(size_t needed, u32 other) {
  std::vector<u32> rooms;
  const auto size = static_cast<u32>(needed);
  if (size <= 48) {
    for (u32 room = 0; room <= size + 2; ++room) rooms.push_back(room);
  } else {
    rooms = {0, 1, size / 2, size - 2, size - 1, size, size + 1, size + 40};
  }
  rooms.push_back(other % (size + 8));
  return rooms;
}

// Asks for the size, and converts into each room. The room is a number of units; the size that comes back is in bytes.
template <class Unit, class Convert>
void CheckConverter(const Conversion<Unit> &expected, u32 otherRoom, Convert convert) {
  const size_t length = expected.units.size();
  const auto needed = static_cast<u32>((length + 1) * sizeof(Unit));

  u32 size = 12345;
  FUZZ_CHECK(convert(nullptr, &size) == expected.status);
  FUZZ_CHECK(size == (expected.status == SM_STATUS_SUCCESS ? needed : 12345));

  for (const u32 roomSize : RoomsFor(length + 1, otherRoom)) {
    // As many whole pieces as there is room for.
    const size_t stored = *(std::upper_bound(expected.ends.begin(), expected.ends.end(), roomSize) - 1);
    std::vector<Unit> written(expected.units.data(), expected.units.data() + stored);
    s32 status = stored < length ? SM_STATUS_BUFFER_TOO_SMALL : SM_STATUS_SUCCESS;
    if (status == SM_STATUS_SUCCESS) status = expected.status;
    if (status == SM_STATUS_SUCCESS && written.size() == roomSize) status = SM_STATUS_BUFFER_TOO_SMALL;
    if (status == SM_STATUS_SUCCESS) written.push_back(0);

    Room<Unit> room(roomSize);
    size = roomSize;
    FUZZ_CHECK(convert(room.data(), &size) == status);
    FUZZ_CHECK(size == (status == SM_STATUS_SUCCESS ? needed : roomSize));
    FUZZ_CHECK(room.HoldsOnly(written));
  }
}

// --- Single code points ---------------------------------------------------------------------------------------------

// Nothing for what cannot be written.
std::vector<char> UTF8Of(u32 codePoint) {
  if (codePoint < 0x80) return {static_cast<char>(codePoint)};
  if (codePoint > 0x7FFFFFFF) return {};
  constexpr u32 kLast[] = {0x7FF, 0xFFFF, 0x1FFFFF, 0x3FFFFFF, 0x7FFFFFFF};
  constexpr u32 kLead[] = {0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
  u32 tail = 1;
  while (codePoint > kLast[tail - 1]) ++tail;
  std::vector<char> bytes = {static_cast<char>(kLead[tail - 1] | codePoint >> (6 * tail))};
  while (tail > 0) {
    --tail;
    bytes.push_back(static_cast<char>(0x80 | (codePoint >> (6 * tail) & 0x3F)));
  }
  return bytes;
}

std::vector<ustring> UTF16Of(u32 codePoint) {
  if (codePoint > 0x10FFFF) return {};
  if (codePoint <= 0xFFFF) return {static_cast<ustring>(codePoint)};
  return {static_cast<ustring>(0xD800 | (codePoint >> 10 & 0x3FF)), static_cast<ustring>(0xDC00 | (codePoint & 0x3FF))};
}

struct Decoded {
  s32 status = SM_STATUS_SUCCESS;
  u32 codePoint = 0;
  u32 length = 1;
};

Decoded DecodeUTF8(std::string_view text) {
  if (text.empty()) return {};
  const auto lead = static_cast<u8>(text[0]);
  if (lead < 0x80) return {SM_STATUS_SUCCESS, lead, 1};
  if (lead < 0xC0 || lead > 0xFD) return {SM_STATUS_BAD_DATA, 0, 0};
  u32 length = 2;
  while ((lead & 0x80U >> length) != 0) ++length;
  if (text.size() < length) return {SM_STATUS_BAD_DATA, 0, 0};
  u32 codePoint = lead & (0x7FU >> length);
  for (u32 i = 1; i < length; ++i) codePoint = codePoint << 6 | (static_cast<u8>(text[i]) & 0x3F);
  return {SM_STATUS_SUCCESS, codePoint, length};
}

Decoded DecodeUTF16(const std::vector<ustring> &text) {
  const u32 first = text.empty() ? 0 : text[0];
  if (first < 0xD800 || first > 0xDFFF) return {SM_STATUS_SUCCESS, first, 1};
  const u32 second = text.size() < 2 ? 0 : text[1];
  if (first > 0xDBFF || second < 0xDC00 || second > 0xDFFF) return {SM_STATUS_BAD_DATA, first, 1};
  return {SM_STATUS_SUCCESS, ((first & 0x3FF) << 10 | (second & 0x3FF)) + 0x10000, 2};
}

std::string_view EntityOf(u32 codePoint) {
  switch (codePoint) {
    case '"': return "&quot;";
    case '&': return "&amp;";
    case '\'': return "&apos;";
    case '<': return "&lt;";
    case '>': return "&gt;";
    default: return {};
  }
}

template <class Unit, class Put>
void CheckPut(const std::vector<Unit> &expected, u32 codePoint, Put put) {
  u32 size = 77;
  const s32 whole = expected.empty() ? SM_STATUS_BAD_DATA : SM_STATUS_SUCCESS;
  FUZZ_CHECK(put(nullptr, &size, codePoint) == whole);
  FUZZ_CHECK(size == (expected.empty() ? 77 : expected.size()));
  for (u32 roomSize = 0; roomSize <= 8; ++roomSize) {
    const bool isStored = !expected.empty() && roomSize >= expected.size();
    Room<Unit> room(roomSize);
    size = roomSize;
    const s32 status = put(room.data(), &size, codePoint);
    FUZZ_CHECK(status == (isStored || expected.empty() ? whole : SM_STATUS_BUFFER_TOO_SMALL));
    FUZZ_CHECK(size == (isStored ? expected.size() : roomSize));
    FUZZ_CHECK(room.HoldsOnly(isStored ? expected : std::vector<Unit>{}));
  }
}

void CheckCodePoint(u32 codePoint) {
  CheckPut(UTF8Of(codePoint), codePoint, UCS4CharToUTF8Chars);
  CheckPut(UTF16Of(codePoint), codePoint, UCS4CharToUTF16Chars);
  const std::string_view entity = EntityOf(codePoint);
  booln isEscaped = 7;
  const auto put = [&](astring *pDest, u32 *pSize, u32 c) {
    isEscaped = 7;
    return UCS4CharToXMLUTF8Chars(pDest, pSize, &isEscaped, c);
  };
  if (entity.empty()) {
    CheckPut(UTF8Of(codePoint), codePoint, put);
    FUZZ_CHECK(isEscaped == 0);
    return;
  }
  for (u32 roomSize = 0; roomSize <= 9; ++roomSize) {
    Room<char> room(roomSize);
    u32 size = roomSize;
    const bool isStored = roomSize >= entity.size();
    FUZZ_CHECK(put(room.data(), &size, codePoint) == (isStored ? 0 : SM_STATUS_BUFFER_TOO_SMALL) && isEscaped == 1);
    FUZZ_CHECK(size == (isStored ? entity.size() : roomSize));
    std::vector<char> expected;
    if (isStored) {
      expected.assign(entity.begin(), entity.end());
      expected.resize(roomSize);
      expected.back() = 0;  // also over the ";"
    }
    FUZZ_CHECK(room.HoldsOnly(expected));
  }
}

// --- Text -----------------------------------------------------------------------------------------------------------

void CheckUTF8(const std::vector<char> &text, u32 otherRoom) {
  const std::string_view view(text.data(), text.size());
  Conversion<ustring> units;
  for (std::string_view rest = view; !rest.empty();) {
    const Decoded decoded = DecodeUTF8(rest);
    const std::vector<ustring> piece =
        decoded.status == SM_STATUS_SUCCESS ? UTF16Of(decoded.codePoint) : std::vector<ustring>{};
    if (piece.empty()) {
      units.status = SM_STATUS_BAD_DATA;
      break;
    }
    units.Add(piece);
    rest.remove_prefix(decoded.length);
  }
  const astring *const source = Source(text);
  constexpr decltype(&KCSUTF8StrToUCS2Str) kNames[] = {KCSUTF8StrToUCS2Str, KCSLocalToUnicode, KCSASCIIToUnicode};
  CheckConverter(units, otherRoom,
                 [&](ustring *pDest, u32 *pSize) { return kNames[otherRoom % 3](pDest, pSize, source); });

  u32 codePoint = 1;
  u32 length = 99;
  const Decoded first = DecodeUTF8(view);
  FUZZ_CHECK(UTF8CharsToUCS4Char(&codePoint, source, &length) == first.status && codePoint == first.codePoint);
  FUZZ_CHECK(length == (first.status == SM_STATUS_SUCCESS ? first.length : 99));

  Conversion<char> xml;
  bool isEscaped = false;
  for (const char c : text) {
    const std::string_view entity = EntityOf(static_cast<u8>(c));
    isEscaped = isEscaped || !entity.empty();
    xml.Add(entity.empty() ? std::string_view(&c, 1) : entity);
  }
  CheckConverter(xml, otherRoom, [&](astring *pDest, u32 *pSize) {
    booln wasConverted = 7;
    const s32 status = KCSUTF8StrToXMLUTF8Str(pDest, pSize, &wasConverted, source);
    if (status == SM_STATUS_SUCCESS) FUZZ_CHECK(wasConverted == (isEscaped ? 1 : 0));
    return status;
  });
}

// Each surrogate stands for the first character of the whole text, and so for a failure if that is none.
Conversion<char> UTF8OfUnits(const std::vector<ustring> &text) {
  Conversion<char> result;
  for (const ustring unit : text) {
    u32 codePoint = unit;
    if (unit >= 0xD800 && unit <= 0xDFFF) {
      const Decoded first = DecodeUTF16(text);
      result.status = first.status;
      if (first.status != SM_STATUS_SUCCESS) break;
      codePoint = first.codePoint;
    }
    result.Add(UTF8Of(codePoint));
  }
  return result;
}

std::string EscapedForXML(std::string text, u32 passes) {
  for (u32 pass = 0; pass < std::max(passes, 1U); ++pass) {
    std::string escaped;
    for (const char c : text) {
      const std::string_view entity = EntityOf(static_cast<u8>(c));
      escaped += entity.empty() ? std::string_view(&c, 1) : entity;
    }
    if (escaped == text) break;
    text = escaped;
  }
  return text;
}

void CheckUnits(const std::vector<ustring> &text, u32 otherRoom) {
  const ustring *const source = Source(text);
  const Conversion<char> utf8 = UTF8OfUnits(text);
  constexpr decltype(&KCSUCS2StrToUTF8Str) kNames[] = {KCSUCS2StrToUTF8Str, KCSUnicodeToLocal, KCSUnicodeToASCII};
  CheckConverter(utf8, otherRoom,
                 [&](astring *pDest, u32 *pSize) { return kNames[otherRoom % 3](pDest, pSize, source); });

  const Decoded first = DecodeUTF16(text);
  u32 codePoint = 1;
  FUZZ_CHECK(UTF16CharsToUCS4Char(&codePoint, source) == first.status && codePoint == first.codePoint);

  const u32 passes = otherRoom % 4;
  astring *const xml = KCSGetXMLUTF8StrFromUStr(source, passes);
  FUZZ_CHECK((xml != nullptr) == (utf8.status == SM_STATUS_SUCCESS));
  if (xml != nullptr) {
    const std::string plain(utf8.units.begin(), utf8.units.end());
    const std::string expected = EscapedForXML(plain, passes);
    FUZZ_CHECK(xml == expected);
    KCSFreeMem(xml);
    astring *const xmlOfNarrow = KCSGetXMLUTF8StrFromAStr(plain.c_str(), passes);
    FUZZ_CHECK(xmlOfNarrow != nullptr && xmlOfNarrow == expected);
    KCSFreeMem(xmlOfNarrow);
  }
}

void CheckUCS4(const std::vector<u32> &text, u32 otherRoom) {
  Conversion<char> utf8;
  for (const u32 codePoint : text) {
    const std::vector<char> piece = UTF8Of(codePoint);
    if (piece.empty()) {
      utf8.status = SM_STATUS_BAD_DATA;
      break;
    }
    utf8.Add(piece);
  }
  const u32 *const source = Source(text);
  CheckConverter(utf8, otherRoom,
                 [&](astring *pDest, u32 *pSize) { return KCSUCS4StrToUTF8Str(pDest, pSize, source); });
}

void CheckEscape(const std::vector<ustring> &text, u32 otherRoom) {
  std::string escaped;
  for (const ustring unit : text) {
    char piece[8] = {static_cast<char>(unit)};
    if (unit < 0x20 || unit > 0x7F) (void)std::snprintf(piece, sizeof piece, "\\u%04x", unit);
    escaped += unit == '\t' ? "\\t" : unit == '\n' ? "\\n" : unit == '\r' ? "\\r" : unit == '\\' ? "\\\\" : piece;
  }
  const auto needed = static_cast<u32>(escaped.size() + 1);
  const ustring *const source = Source(text);
  for (const u32 roomSize : RoomsFor(needed, otherRoom)) {
    Room<char> room(roomSize);
    u32 size = roomSize;
    const s32 status = KCSUnicodeToEscape(room.data(), &size, source);
    FUZZ_CHECK(status == (roomSize < needed ? SM_STATUS_BUFFER_TOO_SMALL : SM_STATUS_SUCCESS) && size == needed);
    std::vector<char> expected;
    if (status == SM_STATUS_SUCCESS) {
      expected.assign(escaped.begin(), escaped.end());
      expected.resize(roomSize);
      expected.back() = '0';  // in place of the terminator where the room is just large enough
    }
    FUZZ_CHECK(room.HoldsOnly(expected));
  }
}

void CheckDump(std::string_view bytes, u32 address) {
  std::string dump;
  for (size_t offset = 0; offset < bytes.size(); offset += 16) {
    const std::string_view part = bytes.substr(offset, 16);
    char text[16];
    (void)std::snprintf(text, sizeof text, "0x%08X: ", address + static_cast<u32>(offset));
    std::string digits;
    std::string letters;
    for (size_t i = 0; i < part.size(); ++i) {
      char pair[4];
      (void)std::snprintf(pair, sizeof pair, "%02X", static_cast<unsigned>(static_cast<u8>(part[i])));
      digits += pair;
      digits += i + 1 < part.size() && i % 4 == 3 ? ':' : ' ';
      letters += part[i] >= 0x20 && part[i] <= 0x7A ? part[i] : '.';
    }
    digits.resize(48, ' ');
    letters.resize(16, ' ');
    dump += text + digits + "   " + letters + " \r\n";
  }
  KCSSSUStr dest{};
  FUZZ_CHECK(KCSSSUStrAlloc(&dest, 2) != nullptr);
  const std::vector<char> exact(bytes.begin(), bytes.end());
  FUZZ_CHECK(KCSBufToUStr(&dest, exact.data(), static_cast<u32>(exact.size()), address, nullptr) == 0);
  FUZZ_CHECK(dest.strCurLen == dump.size());
  for (size_t i = 0; i <= dump.size(); ++i) FUZZ_CHECK(dest.pStr[i] == static_cast<u8>(dump.c_str()[i]));
  KCSSSUStrFree(&dest);
}

// --- The encoding of the locale -------------------------------------------------------------------------------------

constexpr size_t kInvalid = static_cast<size_t>(-1);

void CheckFromLocale(const std::vector<char> &text, u32 otherRoom) {
  const astring *const source = Source(text);
  const size_t count = std::mbstowcs(nullptr, source, 0);
  u32 size = 12345;
  FUZZ_CHECK(LocalToUnicode(nullptr, &size, source) == (count == kInvalid ? -1 : 0));
  FUZZ_CHECK(size == (count == kInvalid ? 12345 : 2 * count + 2));
  std::vector<wchar_t> wide(text.size() + 8);
  for (const u32 roomSize : RoomsFor(2 * (text.size() + 1), otherRoom)) {
    if (roomSize == 0 || (text.empty() && roomSize < 2)) continue;  // no room asks for the size
    const size_t limit = std::min<size_t>(roomSize / 2, wide.size());
    const size_t stored = std::mbstowcs(wide.data(), source, limit);
    // Of a room of an odd size the last byte is not used.
    Room<ustring> room(roomSize / 2);
    size = roomSize;
    const s32 status = ASCIIToUnicode(room.data(), &size, source);
    FUZZ_CHECK(status == (stored == kInvalid ? -1 : 0));
    FUZZ_CHECK(size == (stored == kInvalid ? roomSize : 2 * stored + 2));
    if (stored == kInvalid) continue;
    std::vector<ustring> expected;
    for (size_t i = 0; i < stored; ++i) expected.push_back(static_cast<ustring>(wide[i]));
    if (stored < roomSize / 2) expected.push_back(0);
    FUZZ_CHECK(room.HoldsOnly(expected));
  }
}

void CheckToLocale(const std::vector<ustring> &text, u32 otherRoom) {
  const ustring *const source = Source(text);
  std::wstring wide;
  for (const ustring unit : text) wide += static_cast<wchar_t>(unit);
  const size_t count = std::wcstombs(nullptr, wide.c_str(), 0);
  const bool isWritten = count != kInvalid;
  u32 size = 12345;
  FUZZ_CHECK(UnicodeToLocal(nullptr, &size, source) == (isWritten ? 0 : -1));
  FUZZ_CHECK(size == (isWritten ? count + 1 : 12345));
  std::vector<char> narrow(4 * text.size() + 64);
  for (const u32 roomSize : RoomsFor(3 * text.size() + 1, otherRoom)) {
    if (roomSize == 0) continue;  // asks for the size
    const size_t stored = std::wcstombs(narrow.data(), wide.c_str(), std::min<size_t>(roomSize, narrow.size()));
    const bool isStored = stored != kInvalid && (stored > 0 || text.empty());
    Room<char> room(roomSize);
    size = roomSize;
    FUZZ_CHECK(UnicodeToASCII(room.data(), &size, source) == (isStored ? 0 : -1));
    FUZZ_CHECK(size == (isStored ? stored + 1 : roomSize));
    if (!isStored) continue;
    std::vector<char> expected(narrow.data(), narrow.data() + stored);
    if (stored < roomSize) expected.push_back(0);
    FUZZ_CHECK(room.HoldsOnly(expected));
  }
}

template <class Unit>
std::vector<Unit> TextOf(std::string_view bytes) {
  std::vector<Unit> text(bytes.size() / sizeof(Unit));
  if (!text.empty()) std::memcpy(text.data(), bytes.data(), text.size() * sizeof(Unit));
  text.resize(static_cast<size_t>(std::find(text.begin(), text.end(), Unit{0}) - text.begin()));
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzInput input(data, size);
  const auto choice = input.Take<u8>();
  const auto room = input.Take<u16>();
  const auto codePoint = input.Take<u32>();
  FUZZ_CHECK(std::setlocale(LC_CTYPE, (choice & 1) != 0 ? "C.UTF-8" : "C") != nullptr);
  // Long enough for every way in which the converters take long text.
  const std::string_view bytes = input.TakeBytes(320);

  CheckCodePoint(codePoint);
  CheckCodePoint(codePoint & 0x7F);
  CheckUTF8(TextOf<char>(bytes), room);
  CheckUnits(TextOf<ustring>(bytes), room);
  CheckUCS4(TextOf<u32>(bytes), room);
  CheckEscape(TextOf<ustring>(bytes), room);
  CheckDump(bytes.substr(0, 70), codePoint);
  CheckFromLocale(TextOf<char>(bytes), room);
  CheckToLocale(TextOf<ustring>(bytes), room);
  FUZZ_CHECK(KCSGetLocalLanguageID() == 1033);
  return 0;
}
