// The host string list: strings with one object each.
//
// TStrings is a persistent (lists can be assigned to each other) that holds the algorithms that
// only need the abstract accessors: look-up by string, by object and by name, name=value pairs,
// Text, CommaText and DelimitedText, loading and saving through a text encoding, and the update
// bracket. TStringList stores the entries, keeps them sorted on request (Sorted, Duplicates,
// Find), and can own their objects. Descendants hook into every change through the virtual
// InsertItem, PutObject, Delete and Clear, and watch changes through OnChanging/OnChange, which
// fire around each change and once around a BeginUpdate/EndUpdate bracket.
//
//   TObjectPtr<TStringList> list = MakeObject<TStringList>();
//   list->SetCommaText(u"colour=blue,\"two words\"");
//   list->Values(u"COLOUR");   // u"blue": names are compared without ASCII case
//   list->CommaText();         // u"colour=blue,\"two words\""
//
// Index errors raise EStringListError ("List index out of bounds (%d)") carrying the index; a
// duplicate refused by a sorted list "String list does not allow duplicates"; Put and Insert on a
// sorted list "Operation not allowed on sorted list".
#pragma once

#include <quma/Export.h>

#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include <quma/Classes.h>
#include <quma/Method.h>
#include <quma/Object.h>
#include <quma/SysUtils.h>

QUMA_PUBLIC_BEGIN
namespace quma {

class TEncoding;
class TStream;

inline constexpr char16_t SDuplicateString[] = u"String list does not allow duplicates";
inline constexpr char16_t SSortedListError[] = u"Operation not allowed on sorted list";

// What a sorted list does with a string it already holds.
enum class TDuplicates { dupIgnore, dupAccept, dupError };
using enum TDuplicates;

class TStrings : public TPersistent {
  QUMA_CLASS(TStrings, TPersistent)
 public:
  TStrings() = default;

  virtual Integer Count() const = 0;
  virtual UnicodeString Strings(Integer Index) const = 0;
  virtual TObject* Objects(Integer Index) const = 0;
  virtual void Put(Integer Index, const UnicodeString& S) = 0;
  virtual void PutObject(Integer Index, TObject* AObject) = 0;
  virtual void InsertObject(Integer Index, const UnicodeString& S, TObject* AObject) = 0;
  virtual void Delete(Integer Index) = 0;
  virtual void Clear() = 0;

  void Insert(Integer Index, const UnicodeString& S) { InsertObject(Index, S, nullptr); }
  // Appends (a sorted list inserts in order); returns the index.
  virtual Integer AddObject(const UnicodeString& S, TObject* AObject);
  Integer Add(const UnicodeString& S) { return AddObject(S, nullptr); }
  Integer Add(std::string_view S) { return AddObject(Utf8ToUtf16(S), nullptr); }
  Integer AddObject(std::string_view S, TObject* AObject) { return AddObject(Utf8ToUtf16(S), AObject); }
  Integer AddPair(UnicodeStringView Name, UnicodeStringView Value);
  // Adds every string (with its object) of Strings, inside one update bracket.
  void AddStrings(const TStrings* Strings);
  void AddStrings(std::span<const UnicodeString> Strings);
  // Moves the entry with its object; nothing is freed on the way.
  virtual void Move(Integer CurIndex, Integer NewIndex);

  // From another TStrings: the strings, their objects and the text settings (separators,
  // quote, line break, encodings), in one update bracket. Other sources: the host's error.
  void Assign(TPersistent* Source) override;
  // Same count and the same strings, compared exactly (objects are not compared).
  bool Equals(const TStrings* Strings) const;
  bool Equals(const TObject* Obj) const override;

  // First index of S (see CompareStrings), or -1.
  virtual Integer IndexOf(UnicodeStringView S) const;
  Integer IndexOf(std::string_view S) const { return IndexOf(UnicodeStringView(Utf8ToUtf16(S))); }
  // First index whose name (the text before NameValueSeparator) equals Name, or -1.
  virtual Integer IndexOfName(UnicodeStringView Name) const;
  Integer IndexOfName(std::string_view Name) const { return IndexOfName(UnicodeStringView(Utf8ToUtf16(Name))); }
  virtual Integer IndexOfObject(const TObject* AObject) const;

  // The name of entry Index ("" when it has no separator).
  UnicodeString Names(Integer Index) const;
  // The value after the separator of entry Index ("" when it has no separator).
  UnicodeString ValueFromIndex(Integer Index) const;
  // Replaces the value of entry Index (adds an entry when Index < 0); an empty value deletes it.
  void SetValueFromIndex(Integer Index, UnicodeStringView Value);
  // The value of the first entry named Name, or "".
  UnicodeString Values(UnicodeStringView Name) const;
  UnicodeString Values(std::string_view Name) const { return Values(UnicodeStringView(Utf8ToUtf16(Name))); }
  // Sets the value of Name: replaces the entry, adds one when there is none, and deletes the
  // entry when Value is empty.
  void SetValue(UnicodeStringView Name, UnicodeStringView Value);

  // Every string followed by LineBreak. Setting splits on CR, LF and CR LF while LineBreak is
  // the default (LF), else on LineBreak exactly.
  UnicodeString Text() const;
  void SetText(UnicodeStringView Value);
  void SetText(std::string_view Value) { SetText(UnicodeStringView(Utf8ToUtf16(Value))); }

  // The strings joined by Delimiter. A string is quoted (QuoteChar around it, embedded quote
  // characters doubled) when it contains the delimiter or the quote character, or, unless
  // StrictDelimiter, a space or control character. A list of one empty string gives two quote
  // characters. Setting splits the text back: quoted items are unquoted; without
  // StrictDelimiter blanks also separate items and are dropped around them.
  UnicodeString DelimitedText() const;
  void SetDelimitedText(UnicodeStringView Value);
  void SetDelimitedText(std::string_view Value) { SetDelimitedText(UnicodeStringView(Utf8ToUtf16(Value))); }
  // DelimitedText with ',' and '"' and without StrictDelimiter, whatever the settings.
  UnicodeString CommaText() const;
  void SetCommaText(UnicodeStringView Value);
  void SetCommaText(std::string_view Value) { SetCommaText(UnicodeStringView(Utf8ToUtf16(Value))); }

  WideChar Delimiter() const noexcept { return FDelimiter; }
  void SetDelimiter(WideChar c) noexcept { FDelimiter = c; }
  WideChar QuoteChar() const noexcept { return FQuoteChar; }
  void SetQuoteChar(WideChar c) noexcept { FQuoteChar = c; }
  bool StrictDelimiter() const noexcept { return FStrictDelimiter; }
  void SetStrictDelimiter(bool value) noexcept { FStrictDelimiter = value; }
  WideChar NameValueSeparator() const noexcept { return FNameValueSeparator; }
  void SetNameValueSeparator(WideChar c) noexcept { FNameValueSeparator = c; }
  const UnicodeString& LineBreak() const noexcept { return FLineBreak; }
  void SetLineBreak(UnicodeString s) { FLineBreak = std::move(s); }

  // Replaces the strings by the text of the rest of the stream. Without an encoding, a
  // byte-order mark chooses it (UTF-8, UTF-16 LE or BE), else DefaultEncoding; a given encoding's
  // mark is skipped. Undecodable bytes raise EEncodingError and leave the list as it was.
  void LoadFromStream(TStream* Stream, const TEncoding* AEncoding = nullptr);
  // Writes Text in AEncoding, else the encoding of the last load, else DefaultEncoding, preceded
  // by its byte-order mark while WriteBOM is set.
  void SaveToStream(TStream* Stream, const TEncoding* AEncoding = nullptr) const;
  void LoadFromFile(UnicodeStringView FileName, const TEncoding* AEncoding = nullptr);
  void LoadFromFile(std::string_view FileName, const TEncoding* AEncoding = nullptr);
  void SaveToFile(UnicodeStringView FileName, const TEncoding* AEncoding = nullptr) const;
  void SaveToFile(std::string_view FileName, const TEncoding* AEncoding = nullptr) const;
  // The encoding found by the last load (null before one). Encodings are not owned: they must
  // outlive the list (the shared standard ones always do).
  const TEncoding* Encoding() const noexcept { return FEncoding; }
  const TEncoding* DefaultEncoding() const noexcept;
  void SetDefaultEncoding(const TEncoding* Value) noexcept { FDefaultEncoding = Value; }
  bool WriteBOM() const noexcept { return FWriteBOM; }
  void SetWriteBOM(bool value) noexcept { FWriteBOM = value; }

  // Brackets many changes: OnChanging fires at the outermost BeginUpdate, OnChange at the
  // outermost EndUpdate; changes inside fire neither.
  void BeginUpdate();
  void EndUpdate();
  Integer UpdateCount() const noexcept { return FUpdateCount; }

 protected:
  // Called with true at the outermost BeginUpdate and false at the outermost EndUpdate.
  virtual void SetUpdateState(bool Updating) { (void)Updating; }
  // The order and equality of strings for look-ups and sorting: here ASCII case is ignored.
  virtual int CompareStrings(UnicodeStringView a, UnicodeStringView b) const;
  [[noreturn]] static void Error(Integer Index);
  // Runs Change inside BeginUpdate/EndUpdate; EndUpdate runs when Change throws too.
  template <class F>
  void Updating(F&& Change) {
    BeginUpdate();
    try {
      Change();
    } catch (...) {
      EndUpdate();
      throw;
    }
    EndUpdate();
  }

 private:
  UnicodeString GetDelimited(WideChar Delim, WideChar Quote, bool Strict) const;
  void SetDelimited(UnicodeStringView Value, WideChar Delim, WideChar Quote, bool Strict);

  Integer FUpdateCount = 0;
  WideChar FNameValueSeparator = u'=';
  WideChar FDelimiter = u',';
  WideChar FQuoteChar = u'"';
  bool FStrictDelimiter = false;
  bool FWriteBOM = true;
  UnicodeString FLineBreak = u"\n";
  const TEncoding* FEncoding = nullptr;
  const TEncoding* FDefaultEncoding = nullptr;  // null: TEncoding::Default()
};

class TStringList;
// Three-way comparison of two entries by index, for CustomSort.
using TStringListSortCompare = std::function<Integer(TStringList& List, Integer Index1, Integer Index2)>;

class TStringList : public TStrings {
  QUMA_CLASS(TStringList, TStrings)
 public:
  TStringList() = default;
  explicit TStringList(bool OwnsObjects) : FOwnsObjects(OwnsObjects) {}
  // Frees the owned objects after the entries are gone; no change events fire.
  ~TStringList() override;

  Integer Count() const override { return static_cast<Integer>(FList.size()); }
  UnicodeString Strings(Integer Index) const override;
  const UnicodeString& operator[](Integer Index) const;
  TObject* Objects(Integer Index) const override;
  void Put(Integer Index, const UnicodeString& S) override;
  // Replaces the object of an entry; the old object is not freed.
  void PutObject(Integer Index, TObject* AObject) override;
  void InsertObject(Integer Index, const UnicodeString& S, TObject* AObject) override;
  // On a sorted list: inserts in order and applies Duplicates (dupIgnore returns the index of
  // the entry already there and keeps AObject out of the list).
  Integer AddObject(const UnicodeString& S, TObject* AObject) override;
  using TStrings::AddObject;
  // Removes an entry; frees its object when OwnsObjects is set.
  void Delete(Integer Index) override;
  // Removes every entry; frees their objects when OwnsObjects is set.
  void Clear() override;
  void Exchange(Integer Index1, Integer Index2);
  Integer IndexOf(UnicodeStringView S) const override;
  using TStrings::IndexOf;

  // Binary search of a sorted list: true and the first matching index, or false and the index
  // where S would go.
  virtual bool Find(UnicodeStringView S, Integer& Index) const;
  // Sorts by CompareStrings (stable). Both do nothing on a list that keeps itself sorted.
  virtual void Sort();
  // Sorts with Compare (stable), which sees the list as it was before the sort.
  virtual void CustomSort(const TStringListSortCompare& Compare);

  // Setting sorts the list once and keeps it sorted.
  bool Sorted() const noexcept { return FSorted; }
  void SetSorted(bool Value);
  TDuplicates Duplicates() const noexcept { return FDuplicates; }
  void SetDuplicates(TDuplicates Value) noexcept { FDuplicates = Value; }
  // Case-sensitive comparison (ordinal); a sorted list sorts itself again when it changes.
  bool CaseSensitive() const noexcept { return FCaseSensitive; }
  void SetCaseSensitive(bool Value);
  bool OwnsObjects() const noexcept { return FOwnsObjects; }
  void SetOwnsObjects(bool value) noexcept { FOwnsObjects = value; }

  // TStrings' assignment, then Sorted, Duplicates and CaseSensitive of a string list source.
  void Assign(TPersistent* Source) override;

  TNotifyEvent OnChange;
  TNotifyEvent OnChanging;

 protected:
  // Stores a new entry at Index (already checked), inside the changing/changed bracket.
  virtual void InsertItem(Integer Index, const UnicodeString& S, TObject* AObject);
  virtual void Changing();
  virtual void Changed();
  void SetUpdateState(bool Updating) override;
  // CompareStr or CompareText, as CaseSensitive says.
  int CompareStrings(UnicodeStringView a, UnicodeStringView b) const override;
  void CheckIndex(Integer Index) const {
    if (Index < 0 || Index >= Count()) Error(Index);
  }
  // Storage primitives for descendants that decide themselves what happens to the objects: they
  // take entries out without change events and without freeing anything.
  TObject* RemoveItem(Integer Index);
  std::vector<TObject*> RemoveAllItems();

 private:
  struct TStringItem {
    UnicodeString FString;
    TObject* FObject;
  };
  std::vector<TStringItem> FList;
  bool FOwnsObjects = false;
  bool FSorted = false;
  bool FCaseSensitive = false;
  TDuplicates FDuplicates = dupIgnore;
};

}  // namespace quma
QUMA_PUBLIC_END
