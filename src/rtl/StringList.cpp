#include <quma/StringList.h>

#include <algorithm>

#include <quma/Encoding.h>
#include <quma/Streams.h>
#include <quma/Strings.h>

namespace quma {

// ---- TStrings ----

void TStrings::Error(Integer Index) { throw EStringListError(Format(SListIndexError, Index), Index); }

int TStrings::CompareStrings(UnicodeStringView a, UnicodeStringView b) const { return CompareText(a, b); }

Integer TStrings::AddObject(const UnicodeString& S, TObject* AObject) {
  const Integer index = Count();
  InsertObject(index, S, AObject);
  return index;
}

Integer TStrings::AddPair(UnicodeStringView Name, UnicodeStringView Value) {
  UnicodeString entry(Name);
  entry += FNameValueSeparator;
  entry += Value;
  return Add(entry);
}

void TStrings::AddStrings(const TStrings* Strings) {
  if (!Strings) return;
  Updating([&] {
    // The count is taken once, so that adding a list to itself doubles it.
    for (Integer i = 0, n = Strings->Count(); i < n; ++i) AddObject(Strings->Strings(i), Strings->Objects(i));
  });
}

void TStrings::AddStrings(std::span<const UnicodeString> Strings) {
  Updating([&] {
    for (const UnicodeString& s : Strings) Add(s);
  });
}

void TStrings::Move(Integer CurIndex, Integer NewIndex) {
  if (CurIndex == NewIndex) return;
  Updating([&] {
    const UnicodeString s = Strings(CurIndex);
    TObject* const obj = Objects(CurIndex);
    PutObject(CurIndex, nullptr);  // so that an owning list does not free it on the way
    Delete(CurIndex);
    InsertObject(NewIndex, s, obj);
  });
}

void TStrings::Assign(TPersistent* Source) {
  auto* source = dynamic_cast<TStrings*>(Source);
  if (!source) {
    inherited::Assign(Source);
    return;
  }
  if (source == this) return;
  Updating([&] {
    Clear();
    FDefaultEncoding = source->FDefaultEncoding;
    FEncoding = source->FEncoding;
    FLineBreak = source->FLineBreak;
    FDelimiter = source->FDelimiter;
    FQuoteChar = source->FQuoteChar;
    FNameValueSeparator = source->FNameValueSeparator;
    FStrictDelimiter = source->FStrictDelimiter;
    FWriteBOM = source->FWriteBOM;
    AddStrings(source);
  });
}

bool TStrings::Equals(const TStrings* Strings) const {
  if (!Strings) return false;
  const Integer n = Count();
  if (n != Strings->Count()) return false;
  for (Integer i = 0; i < n; ++i)
    if (this->Strings(i) != Strings->Strings(i)) return false;
  return true;
}

bool TStrings::Equals(const TObject* Obj) const {
  if (const auto* strings = dynamic_cast<const TStrings*>(Obj)) return Equals(strings);
  return inherited::Equals(Obj);
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
  if (Index < 0) return UnicodeString();
  const UnicodeString s = Strings(Index);
  const auto p = s.find(FNameValueSeparator);
  return p == UnicodeString::npos ? UnicodeString() : s.substr(p + 1);
}

void TStrings::SetValueFromIndex(Integer Index, UnicodeStringView Value) {
  if (Value.empty()) {
    if (Index >= 0) Delete(Index);
    return;
  }
  UnicodeString entry = Index < 0 ? UnicodeString() : Names(Index);
  entry += FNameValueSeparator;
  entry += Value;
  if (Index < 0)
    Add(entry);
  else
    Put(Index, entry);
}

UnicodeString TStrings::Values(UnicodeStringView Name) const { return ValueFromIndex(IndexOfName(Name)); }

void TStrings::SetValue(UnicodeStringView Name, UnicodeStringView Value) {
  const Integer i = IndexOfName(Name);
  if (Value.empty()) {
    if (i >= 0) Delete(i);
  } else if (i < 0) {
    AddPair(Name, Value);
  } else {
    UnicodeString entry(Name);
    entry += FNameValueSeparator;
    entry += Value;
    Put(i, entry);
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
  Updating([&] {
    Clear();
    const std::size_t n = Value.size();
    std::size_t start = 0;
    if (FLineBreak == u"\n") {  // the platform's line break: any of CR, LF and CR LF ends a line
      while (start < n) {
        std::size_t end = start;
        while (end < n && Value[end] != u'\r' && Value[end] != u'\n') ++end;
        Add(UnicodeString(Value.substr(start, end - start)));
        if (end < n && Value[end] == u'\r') ++end;
        if (end < n && Value[end] == u'\n') ++end;
        start = end;
      }
      return;
    }
    while (start < n) {
      const std::size_t end = FLineBreak.empty() ? UnicodeStringView::npos : Value.find(FLineBreak, start);
      if (end == UnicodeStringView::npos) {
        Add(UnicodeString(Value.substr(start)));
        return;
      }
      Add(UnicodeString(Value.substr(start, end - start)));
      start = end + FLineBreak.size();
    }
  });
}

// The host's rules, with one difference: the host scans null-terminated text, so a NUL character
// would end it; here the text ends at its length and NUL counts as a control character.
UnicodeString TStrings::GetDelimited(WideChar Delim, WideChar Quote, bool Strict) const {
  const Integer n = Count();
  if (n == 1 && Strings(0).empty()) return UnicodeString{Quote, Quote};
  UnicodeString result;
  for (Integer i = 0; i < n; ++i) {
    const UnicodeString s = Strings(i);
    const bool quote = std::any_of(s.begin(), s.end(), [&](WideChar c) {
      return c == Delim || c == Quote || (!Strict && c <= u' ');
    });
    if (i > 0) result += Delim;
    if (!quote) {
      result += s;
      continue;
    }
    result += Quote;
    for (WideChar c : s) {
      if (c == Quote) result += Quote;
      result += c;
    }
    result += Quote;
  }
  return result;
}

void TStrings::SetDelimited(UnicodeStringView Value, WideChar Delim, WideChar Quote, bool Strict) {
  const std::size_t n = Value.size();
  std::size_t p = 0;
  const auto skipBlanks = [&] {
    if (!Strict)
      while (p < n && Value[p] <= u' ') ++p;
  };
  Updating([&] {
    Clear();
    skipBlanks();
    while (p < n) {
      UnicodeString item;
      if (Value[p] == Quote) {
        // Up to the closing quote (doubled quotes stand for one), or to the end of the text.
        for (++p; p < n; ++p) {
          if (Value[p] == Quote) {
            if (p + 1 < n && Value[p + 1] == Quote) {
              ++p;
            } else {
              ++p;
              break;
            }
          }
          item += Value[p];
        }
      } else {
        const std::size_t first = p;
        while (p < n && Value[p] != Delim && (Strict || Value[p] > u' ')) ++p;
        item.assign(Value.substr(first, p - first));
      }
      Add(item);
      skipBlanks();
      if (p < n && Value[p] == Delim) {
        if (p + 1 == n) Add(UnicodeString());  // a delimiter at the very end ends an empty item
        ++p;
        skipBlanks();
      }
    }
  });
}

UnicodeString TStrings::DelimitedText() const { return GetDelimited(FDelimiter, FQuoteChar, FStrictDelimiter); }

void TStrings::SetDelimitedText(UnicodeStringView Value) { SetDelimited(Value, FDelimiter, FQuoteChar, FStrictDelimiter); }

UnicodeString TStrings::CommaText() const { return GetDelimited(u',', u'"', false); }

void TStrings::SetCommaText(UnicodeStringView Value) { SetDelimited(Value, u',', u'"', false); }

const TEncoding* TStrings::DefaultEncoding() const noexcept {
  return FDefaultEncoding ? FDefaultEncoding : TEncoding::Default();
}

void TStrings::LoadFromStream(TStream* Stream, const TEncoding* AEncoding) {
  const Int64 size = Stream->Size() - Stream->Position();
  const TBytes buffer = Stream->ReadBytes(std::max<Int64>(size, 0));
  const Integer mark = TEncoding::GetBufferEncoding(buffer, AEncoding, DefaultEncoding());
  // Decoded before anything changes, so that bad input leaves the list as it was.
  const UnicodeString text = AEncoding->GetString(buffer, mark, static_cast<Integer>(buffer.size()) - mark);
  FEncoding = AEncoding;
  SetText(text);
}

void TStrings::SaveToStream(TStream* Stream, const TEncoding* AEncoding) const {
  if (!AEncoding) AEncoding = FEncoding ? FEncoding : DefaultEncoding();
  const TBytes bytes = AEncoding->GetBytes(Text());
  if (FWriteBOM) {
    const TBytes mark = AEncoding->GetPreamble();
    Stream->WriteBuffer(mark.data(), static_cast<Int64>(mark.size()));
  }
  Stream->WriteBuffer(bytes.data(), static_cast<Int64>(bytes.size()));
}

void TStrings::LoadFromFile(UnicodeStringView FileName, const TEncoding* AEncoding) {
  TFileStream stream(FileName, fmOpenRead);
  LoadFromStream(&stream, AEncoding);
}

void TStrings::LoadFromFile(std::string_view FileName, const TEncoding* AEncoding) {
  LoadFromFile(UnicodeStringView(Utf8ToUtf16(FileName)), AEncoding);
}

void TStrings::SaveToFile(UnicodeStringView FileName, const TEncoding* AEncoding) const {
  TFileStream stream(FileName, fmCreate);
  SaveToStream(&stream, AEncoding);
}

void TStrings::SaveToFile(std::string_view FileName, const TEncoding* AEncoding) const {
  SaveToFile(UnicodeStringView(Utf8ToUtf16(FileName)), AEncoding);
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
  if (FSorted) throw EStringListError(SSortedListError);
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
  if (FSorted) throw EStringListError(SSortedListError);
  if (Index < 0 || Index > Count()) Error(Index);
  InsertItem(Index, S, AObject);
}

Integer TStringList::AddObject(const UnicodeString& S, TObject* AObject) {
  Integer index = Count();
  if (FSorted && Find(S, index)) {
    if (FDuplicates == dupIgnore) return index;
    if (FDuplicates == dupError) throw EStringListError(SDuplicateString);
  }
  InsertItem(index, S, AObject);
  return index;
}

Integer TStringList::IndexOf(UnicodeStringView S) const {
  if (!FSorted) return TStrings::IndexOf(S);
  Integer index = -1;
  return Find(S, index) ? index : -1;
}

bool TStringList::Find(UnicodeStringView S, Integer& Index) const {
  bool found = false;
  Integer lo = 0, hi = Count() - 1;
  while (lo <= hi) {
    const Integer mid = lo + (hi - lo) / 2;
    const int c = CompareStrings(FList[static_cast<std::size_t>(mid)].FString, S);
    if (c < 0) {
      lo = mid + 1;
    } else {
      hi = mid - 1;
      if (c == 0) found = true;  // keep going left: the first of equal strings
    }
  }
  Index = lo;
  return found;
}

void TStringList::Sort() {
  CustomSort([](TStringList& list, Integer a, Integer b) -> Integer {
    return list.CompareStrings(list.FList[static_cast<std::size_t>(a)].FString,
                               list.FList[static_cast<std::size_t>(b)].FString);
  });
}

void TStringList::CustomSort(const TStringListSortCompare& Compare) {
  if (FSorted || FList.size() < 2) return;
  Changing();
  // A bottom-up merge sort of the indexes: stable, and safe with a comparison that is not a
  // strict order. The entries move only once the order is known.
  const std::size_t n = FList.size();
  std::vector<Integer> order(n), merged(n);
  for (std::size_t i = 0; i < n; ++i) order[i] = static_cast<Integer>(i);
  for (std::size_t width = 1; width < n; width *= 2) {
    for (std::size_t lo = 0; lo < n; lo += 2 * width) {
      const std::size_t mid = std::min(lo + width, n), hi = std::min(lo + 2 * width, n);
      std::size_t a = lo, b = mid, out = lo;
      while (a < mid && b < hi) merged[out++] = Compare(*this, order[b], order[a]) < 0 ? order[b++] : order[a++];
      while (a < mid) merged[out++] = order[a++];
      while (b < hi) merged[out++] = order[b++];
    }
    order.swap(merged);
  }
  if (FList.size() == n) {  // unless the comparison changed the list
    std::vector<TStringItem> items;
    items.reserve(n);
    for (Integer i : order) items.push_back(std::move(FList[static_cast<std::size_t>(i)]));
    FList = std::move(items);
  }
  Changed();
}

void TStringList::SetSorted(bool Value) {
  if (FSorted == Value) return;
  if (Value) Sort();
  FSorted = Value;
}

void TStringList::SetCaseSensitive(bool Value) {
  if (FCaseSensitive == Value) return;
  FCaseSensitive = Value;
  if (FSorted) {  // another order: sort again
    FSorted = false;
    SetSorted(true);
  }
}

int TStringList::CompareStrings(UnicodeStringView a, UnicodeStringView b) const {
  return FCaseSensitive ? CompareStr(a, b) : CompareText(a, b);
}

void TStringList::Assign(TPersistent* Source) {
  inherited::Assign(Source);
  if (auto* source = dynamic_cast<TStringList*>(Source)) {
    FCaseSensitive = source->FCaseSensitive;
    FDuplicates = source->FDuplicates;
    FSorted = source->FSorted;
  }
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
