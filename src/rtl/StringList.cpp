#include <quma/StringList.h>

#include <quma/Strings.h>

namespace quma {

// ---- TStrings ----

void TStrings::Error(Integer Index) { throw EStringListError(Format(SListIndexError, Index), Index); }

int TStrings::CompareStrings(UnicodeStringView a, UnicodeStringView b) const noexcept {
  return FCaseSensitive ? CompareStr(a, b) : CompareText(a, b);
}

Integer TStrings::AddObject(const UnicodeString& S, TObject* AObject) {
  const Integer index = Count();
  InsertObject(index, S, AObject);
  return index;
}

Integer TStrings::IndexOf(UnicodeStringView S) const {
  const Integer n = Count();
  for (Integer i = 0; i < n; ++i)
    if (CompareStrings(Strings(i), S) == 0) return i;
  return -1;
}

Integer TStrings::IndexOfName(UnicodeStringView Name) const {
  const Integer n = Count();
  for (Integer i = 0; i < n; ++i) {
    const UnicodeString s = Strings(i);
    const auto p = s.find(FNameValueSeparator);
    if (p != UnicodeString::npos && CompareStrings(UnicodeStringView(s).substr(0, p), Name) == 0) return i;
  }
  return -1;
}

Integer TStrings::IndexOfObject(const TObject* AObject) const {
  const Integer n = Count();
  for (Integer i = 0; i < n; ++i)
    if (Objects(i) == AObject) return i;
  return -1;
}

UnicodeString TStrings::Names(Integer Index) const {
  const UnicodeString s = Strings(Index);
  const auto p = s.find(FNameValueSeparator);
  return p == UnicodeString::npos ? UnicodeString() : s.substr(0, p);
}

UnicodeString TStrings::ValueFromIndex(Integer Index) const {
  const UnicodeString s = Strings(Index);
  const auto p = s.find(FNameValueSeparator);
  return p == UnicodeString::npos ? UnicodeString() : s.substr(p + 1);
}

UnicodeString TStrings::Values(UnicodeStringView Name) const {
  const Integer i = IndexOfName(Name);
  return i < 0 ? UnicodeString() : ValueFromIndex(i);
}

void TStrings::SetValue(UnicodeStringView Name, UnicodeStringView Value) {
  const Integer i = IndexOfName(Name);
  if (!Value.empty()) {
    UnicodeString entry(Name);
    entry += FNameValueSeparator;
    entry += Value;
    if (i < 0)
      Add(entry);
    else
      Put(i, entry);
  } else if (i >= 0) {
    Delete(i);
  }
}

UnicodeString TStrings::Text() const {
  UnicodeString result;
  const Integer n = Count();
  for (Integer i = 0; i < n; ++i) {
    result += Strings(i);
    result += FLineBreak;
  }
  return result;
}

void TStrings::SetText(UnicodeStringView Value) {
  BeginUpdate();
  try {
    Clear();
    std::size_t start = 0;
    const std::size_t n = Value.size();
    while (start < n) {
      std::size_t end = start;
      while (end < n && Value[end] != u'\r' && Value[end] != u'\n') ++end;
      Add(UnicodeString(Value.substr(start, end - start)));
      if (end < n && Value[end] == u'\r') ++end;
      if (end < n && Value[end] == u'\n') ++end;
      start = end;
    }
  } catch (...) {
    EndUpdate();
    throw;
  }
  EndUpdate();
}

void TStrings::BeginUpdate() {
  if (FUpdateCount == 0) SetUpdateState(true);
  ++FUpdateCount;
}

void TStrings::EndUpdate() {
  if (FUpdateCount <= 0) return;
  if (--FUpdateCount == 0) SetUpdateState(false);
}

// ---- TStringList ----

TStringList::~TStringList() {
  OnChange = nullptr;
  OnChanging = nullptr;
  std::vector<TStringItem> items = std::move(FList);
  FList.clear();
  if (FOwnsObjects)
    for (TStringItem& item : items) Free(item.FObject);
}

UnicodeString TStringList::Strings(Integer Index) const {
  CheckIndex(Index);
  return FList[static_cast<std::size_t>(Index)].FString;
}

const UnicodeString& TStringList::operator[](Integer Index) const {
  CheckIndex(Index);
  return FList[static_cast<std::size_t>(Index)].FString;
}

TObject* TStringList::Objects(Integer Index) const {
  CheckIndex(Index);
  return FList[static_cast<std::size_t>(Index)].FObject;
}

void TStringList::Put(Integer Index, const UnicodeString& S) {
  CheckIndex(Index);
  Changing();
  FList[static_cast<std::size_t>(Index)].FString = S;
  Changed();
}

void TStringList::PutObject(Integer Index, TObject* AObject) {
  CheckIndex(Index);
  Changing();
  FList[static_cast<std::size_t>(Index)].FObject = AObject;
  Changed();
}

void TStringList::InsertObject(Integer Index, const UnicodeString& S, TObject* AObject) {
  if (Index < 0 || Index > Count()) Error(Index);
  InsertItem(Index, S, AObject);
}

void TStringList::InsertItem(Integer Index, const UnicodeString& S, TObject* AObject) {
  Changing();
  FList.insert(FList.begin() + Index, TStringItem{S, AObject});
  Changed();
}

void TStringList::Delete(Integer Index) {
  CheckIndex(Index);
  Changing();
  TObject* obj = RemoveItem(Index);
  if (FOwnsObjects) Free(obj);
  Changed();
}

void TStringList::Clear() {
  if (FList.empty()) return;
  Changing();
  const std::vector<TObject*> objects = RemoveAllItems();
  if (FOwnsObjects)
    for (TObject* obj : objects) Free(obj);
  Changed();
}

TObject* TStringList::RemoveItem(Integer Index) {
  CheckIndex(Index);
  TObject* obj = FList[static_cast<std::size_t>(Index)].FObject;
  FList.erase(FList.begin() + Index);
  return obj;
}

std::vector<TObject*> TStringList::RemoveAllItems() {
  std::vector<TStringItem> items = std::move(FList);
  FList.clear();
  std::vector<TObject*> objects;
  objects.reserve(items.size());
  for (TStringItem& item : items) objects.push_back(item.FObject);
  return objects;
}

void TStringList::Exchange(Integer Index1, Integer Index2) {
  CheckIndex(Index1);
  CheckIndex(Index2);
  Changing();
  std::swap(FList[static_cast<std::size_t>(Index1)], FList[static_cast<std::size_t>(Index2)]);
  Changed();
}

void TStringList::Changing() {
  if (UpdateCount() == 0 && OnChanging) OnChanging(this);
}

void TStringList::Changed() {
  if (UpdateCount() == 0 && OnChange) OnChange(this);
}

void TStringList::SetUpdateState(bool Updating) {
  if (Updating)
    Changing();
  else
    Changed();
}

}  // namespace quma
