#ifndef CPPGEN_CLSUTILS_H
#define CPPGEN_CLSUTILS_H

// The services' common toolbox, as static operations: string routines, zeroing allocation,
// number and time texts, and a small reader of attributes written as name=value, from a
// comma-separated list or from a file of lines.
//
// The attribute readers are independent of the profile and type definition readers and have
// rules of their own: in a list a value holding a comma is wrapped in single quotes; in a file a
// line without "=" is kept only on request, and a last line without a line end is not read; a
// name given twice is either an error or its last value wins.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace cls {

typedef std::map<std::string, std::string> StringMap;
typedef std::pair<std::string, std::string> StringMapPair;  // name, value
typedef std::vector<StringMapPair> StringMapPairVec;         // in reading order

// Order and equality of attributes by name alone.
struct PairCompareLess {
  bool operator()(const StringMapPair& a, const StringMapPair& b) const { return a.first < b.first; }
};
struct PairCompareEqual {
  bool operator()(const StringMapPair& a, const StringMapPair& b) const { return a.first == b.first; }
};

class Utils {
 public:
  // Blank, carriage return, line feed, tab.
  static const std::string WHITESPACE_CHARS;

  // What a name given more than once means.
  enum AttrDupVals {
    NO_DUP_VALUES = 0,   // an error, reported for every repeat at once
    LAST_DUP_VALUE = 1,  // the last value given wins
  };

  // Strings. None of these fails.

  // Removes every leading and trailing character found in `chars`.
  static void trimTheString(std::string& s, const std::string& chars);
  // Cuts a string longer than maxLen (taken as at least 3) to maxLen characters ending in "...".
  static void trimLongString(std::string& s, std::size_t maxLen);
  // True when each character of s is in charSet (so for an empty s).
  static bool areAllCharsInSet(const std::string& s, const std::string& charSet);
  // True when s holds any character of chars (never for an empty chars).
  static bool containsChars(const std::string& s, const std::string& chars);
  static void purgeChars(std::string& s, const std::string& chars);
  // Replaces `from` by `to` from the left, going on behind each inserted `to`, until the scan
  // reaches the length s had at the start: "aaa" with "a" by "aa" gives "aaaaa".
  static void replace(std::string& s, const std::string& from, const std::string& to);
  // 0 when equal without regard to case.
  static int compareNoCase(const std::string& s1, const std::string& s2);
  static void makeUpper(std::string& s);
  static void makeLower(std::string& s);

  // Memory.

  // *ppMem must be null (anything else ends the process); it gets size zeroed bytes.
  // Throws NoMemoryException when there are none.
  static void memoryAlloc(void** ppMem, std::size_t size);
  // Frees a non-null *ppMem and clears it.
  static void memoryFree(void** ppMem);
  // The same for a pointer of any type.
  template <typename T>
  static void memoryAlloc(T** ppMem, std::size_t size) {
    void* p = *ppMem;
    memoryAlloc(&p, size);
    *ppMem = static_cast<T*>(p);
  }
  template <typename T>
  static void memoryFree(T** ppMem) {
    void* p = *ppMem;
    memoryFree(&p);
    *ppMem = static_cast<T*>(p);
  }

  // Numbers and time.

  static std::string itoa(int n);
  static std::string itoa(unsigned n);
  static std::string itoa(long n);
  static std::string itoa(unsigned long n);
  // Seconds since the epoch, 32 bits.
  static std::uint32_t getTimeNow();
  // The local time t as "Mon Nov 23 04:52:12 2026".
  static void timeToString(std::uint32_t t, std::string& timeStr);
  static void getLocalHostName(std::string& str);

  // Attributes.

  // extractAttrsFromList, then storeResourceAttrs. `list` is consumed.
  static void getAttrsFromList(std::string& list, StringMap& argMap, bool acceptBlanks, AttrDupVals dupValsEnum);
  // extractAttrsFromFile keeping quotes, then storeResourceAttrs.
  static void getAttrsFromFile(const std::string& file, StringMap& argMap, bool acceptBlanks,
                               AttrDupVals dupValsEnum);
  // Appends the pairs of a list of name=value items separated by commas; a value holding a comma
  // is written name='value'. `list` is eaten as it goes. An item without "=" is a name with an
  // empty value with acceptBlanks, else a UserErrorException (message 4228) naming it; the
  // pairs before it stay. An item with an empty name is dropped.
  static void extractAttrsFromList(std::string& list, StringMapPairVec& attrPairVec, bool acceptBlanks);
  // Appends the pairs of a file's name=value lines. A line without "=" is a name with an empty
  // value with acceptBlanks and is skipped without; with stripQuotes a value 'x' loses its
  // quotes. A file that cannot be opened or read throws BadIOException.
  static void extractAttrsFromFile(const std::string& file, StringMapPairVec& attrPairVec, bool acceptBlanks,
                                   bool stripQuotes);
  // Fills argMap (cleared first) from the pairs, which it sorts by name. A repeated name keeps
  // its first value and then, with LAST_DUP_VALUE, takes each later one in turn; with
  // NO_DUP_VALUES every repeat is reported by one cls::Exception, newest first, and argMap keeps
  // the first values.
  static void storeResourceAttrs(StringMapPairVec& attrPairVec, StringMap& argMap, AttrDupVals dupValsEnum);
  // True when every non-blank line of the file is name=value, with a value that holds a further
  // "=" quoted as 'value'. The format is always name=value; `separator` does not change it.
  static bool isKeyValueInValidFormat(const std::string& file, const std::string& separator);
  static bool isKeyValueInValidFormat(const std::string& file, char separator);
  // The parts of faceValue enclosed in pairs of spSeparator, trimmed, with the position of each
  // opening separator; a doubled separator outside a pair stands for itself. The number found.
  // The trim set is fixed by the first call: a later call with another separator still trims the
  // first one.
  template <typename Position>
  static int parseSpecialValues(const std::string& faceValue, char spSeparator,
                                std::vector<std::string>& specialValues, std::vector<Position>& positions) {
    std::vector<std::size_t> found;
    int n = parseSpecialValues(faceValue, spSeparator, specialValues, found);
    positions.assign(found.begin(), found.end());
    return n;
  }
  static int parseSpecialValues(const std::string& faceValue, char spSeparator,
                                std::vector<std::string>& specialValues, std::vector<std::size_t>& positions);

 private:
  // Sorts the pairs by name, puts the repeats of each name behind all first entries (both parts
  // in name order, repeats of a name in reading order), fills argMap with the first entries and
  // returns where the repeats begin.
  static StringMapPairVec::iterator storeAttrs(StringMapPairVec& attrPairVec, StringMap& argMap);
};

}  // namespace cls

#endif
