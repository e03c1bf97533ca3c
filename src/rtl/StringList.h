// The host string list: strings with one object each.
//
// TStrings holds the algorithms that only need the abstract accessors (look-up by string, by
// name, name=value pairs, Text, the update bracket); TStringList stores the entries and can own
// their objects. Descendants hook into every change through the virtual InsertItem, PutObject,
// Delete and Clear, and watch changes through OnChanging/OnChange, which fire around each change
// and once around a BeginUpdate/EndUpdate bracket.
//
//   TObjectPtr<TStringList> list = MakeObject<TStringList>();
//   list->Add(u"colour=blue");
//   list->Values(u"COLOUR");   // u"blue": names are compared without ASCII case
//
// Index errors raise EStringListError ("List index out of bounds (%d)") carrying the index.
#pragma once

#include <string_view>
#include <vector>

#include <quma/Method.h>
#include <quma/Object.h>
#include <quma/SysUtils.h>

namespace quma {

class TStrings : public TObject {
  QUMA_CLASS(TStrings, TObject)
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
  virtual Integer AddObject(const UnicodeString& S, TObject* AObject);
  Integer Add(const UnicodeString& S) { return AddObject(S, nullptr); }
  Integer Add(std::string_view S) { return AddObject(Utf8ToUtf16(S), nullptr); }
  Integer AddObject(std::string_view S, TObject* AObject) { return AddObject(Utf8ToUtf16(S), AObject); }

  // First index of S (ASCII case ignored unless CaseSensitive), or -1.
  virtual Integer IndexOf(UnicodeStringView S) const;
  Integer IndexOf(std::string_view S) const { return IndexOf(UnicodeStringView(Utf8ToUtf16(S))); }
  // First index whose name (the text before NameValueSeparator) equals Name, or -1.
  virtual Integer IndexOfName(UnicodeStringView Name) const;
  virtual Integer IndexOfObject(const TObject* AObject) const;

  // The name of entry Index ("" when it has no separator).
  UnicodeString Names(Integer Index) const;
  // The value after the separator of entry Index ("" when it has no separator).
  UnicodeString ValueFromIndex(Integer Index) const;
  // The value of the first entry named Name, or "".
  UnicodeString Values(UnicodeStringView Name) const;
  // Sets the value of Name: replaces the entry, adds one when there is none, and deletes the
  // entry when Value is empty.
  void SetValue(UnicodeStringView Name, UnicodeStringView Value);

  // Every string followed by LineBreak. Setting splits on CR, LF and CR LF.
  UnicodeString Text() const;
  void SetText(UnicodeStringView Value);

  WideChar NameValueSeparator() const noexcept { return FNameValueSeparator; }
  void SetNameValueSeparator(WideChar c) noexcept { FNameValueSeparator = c; }
  const UnicodeString& LineBreak() const noexcept { return FLineBreak; }
  void SetLineBreak(UnicodeString s) { FLineBreak = std::move(s); }
  bool CaseSensitive() const noexcept { return FCaseSensitive; }
  void SetCaseSensitive(bool value) noexcept { FCaseSensitive = value; }

  // Brackets many changes: OnChanging fires at the outermost BeginUpdate, OnChange at the
  // outermost EndUpdate; changes inside fire neither.
  void BeginUpdate();
  void EndUpdate();
  Integer UpdateCount() const noexcept { return FUpdateCount; }

 protected:
  // Called with true at the outermost BeginUpdate and false at the outermost EndUpdate.
  virtual void SetUpdateState(bool Updating) { (void)Updating; }
  int CompareStrings(UnicodeStringView a, UnicodeStringView b) const noexcept;
  [[noreturn]] static void Error(Integer Index);

 private:
  Integer FUpdateCount = 0;
  WideChar FNameValueSeparator = u'=';
  bool FCaseSensitive = false;
  UnicodeString FLineBreak = u"\n";
};

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
  // Removes an entry; frees its object when OwnsObjects is set.
  void Delete(Integer Index) override;
  // Removes every entry; frees their objects when OwnsObjects is set.
  void Clear() override;
  void Exchange(Integer Index1, Integer Index2);

  bool OwnsObjects() const noexcept { return FOwnsObjects; }
  void SetOwnsObjects(bool value) noexcept { FOwnsObjects = value; }

  TNotifyEvent OnChange;
  TNotifyEvent OnChanging;

 protected:
  // Stores a new entry at Index (already checked), inside the changing/changed bracket.
  virtual void InsertItem(Integer Index, const UnicodeString& S, TObject* AObject);
  virtual void Changing();
  virtual void Changed();
  void SetUpdateState(bool Updating) override;
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
};

}  // namespace quma
