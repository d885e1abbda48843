#include "foundation/RequestMessage.h"

#include <bit>
#include <new>
#include <string>

namespace {

using rapidjson::SizeType;
using Member = MessageValue::Member;

// Member tables and element arrays start with room for 16 and double whenever they are full.
constexpr SizeType kFirstCapacity = 16;

// Statuses that other parties set on replies that carry data; the module only accepts them.
constexpr uint32_t kForeignDataStatusA = 12;
constexpr uint32_t kForeignDataStatusB = 21;

// RapidJSON 1.1 keeps an object's member table private (no MemberReserve, no MemberCapacity) and grows
// it by half. The message grows it by doubling, so the table is reached here through RapidJSON's own
// storage record. An explicit instantiation may name a private member; the friend it defines is the only
// way in, and only MemberTable() below uses it.
template <auto Storage>
struct ValueStorageAccess {
  friend auto& ValueStorage(MessageValue& value) { return value.*Storage; }
};
template struct ValueStorageAccess<&MessageValue::data_>;
auto& ValueStorage(MessageValue& value);

auto& MemberTable(MessageValue& object) {
  return ValueStorage(object).o;
}

// The null value that every miss reads. Nothing writes to it: writers refuse non-objects, and
// InitCommand refuses this one explicitly.
MessageValue& SharedNull() {
  static MessageValue null;
  return null;
}

// Strings of RapidJSON are either references to constants or copies the value owns (on the heap or,
// when short, inside the value itself). The library states which when it reports a value to a handler.
struct StringOwnershipProbe : rapidjson::BaseReaderHandler<rapidjson::UTF16<char16_t>, StringOwnershipProbe> {
  bool owned = false;
  bool String(const char16_t*, SizeType, bool copy) {
    owned = copy;
    return true;
  }
};

// The number a value holds, as 64 raw bits: integers two's complement, a double its bit pattern. Every
// other type has no number in it and gives 0, so a non-numeric value reads as 0 wherever a number is read.
uint64_t Payload(const MessageValue& value) {
  if (value.IsUint64()) return value.GetUint64();
  if (value.IsInt64()) return static_cast<uint64_t>(value.GetInt64());
  if (value.IsDouble()) return std::bit_cast<uint64_t>(value.GetDouble());
  return 0;
}

uint32_t Low32(const MessageValue& value) {
  return static_cast<uint32_t>(Payload(value));
}

uint8_t LowByte(const MessageValue& value) {
  return static_cast<uint8_t>(Payload(value));
}

// Members of an object, elements of an array, characters of a string; nothing else has a count.
SizeType Count(const MessageValue& value) {
  if (value.IsObject()) return value.MemberCount();
  if (value.IsArray()) return value.Size();
  if (value.IsString()) return value.GetStringLength();
  return 0;
}

// Bytes a number takes on the wire.
int64_t SizeByMagnitude(uint64_t number) {
  if (number < 0x100) return 1;
  if (number < 0x10000) return 2;
  if (number <= 0xFFFFFFFFu) return 4;
  return 8;
}

void MakeRoomForMember(MessageValue& object, rapidjson::CrtAllocator& heap) {
  auto& table = MemberTable(object);
  if (table.size < table.capacity) return;
  const SizeType grown = table.capacity == 0 ? kFirstCapacity : table.capacity * 2;
  Member* members = RAPIDJSON_GETPOINTER(Member, table.members);
  members = static_cast<Member*>(heap.Realloc(members, table.capacity * sizeof(Member), grown * sizeof(Member)));
  RAPIDJSON_SETPOINTER(Member, table.members, members);
  table.capacity = grown;
}

void MakeRoomForElement(MessageValue& array, rapidjson::CrtAllocator& heap) {
  if (array.Size() < array.Capacity()) return;
  array.Reserve(array.Capacity() == 0 ? kFirstCapacity : array.Capacity() * 2, heap);
}

void AppendElement(MessageValue& array, MessageValue& element, rapidjson::CrtAllocator& heap) {
  MakeRoomForElement(array, heap);
  array.PushBack(element, heap);
}

bool KeyEquals(const MessageValue& name, const char16_t* key, size_t length) {
  if (!name.IsString() || name.GetStringLength() != length) return false;
  return std::char_traits<char16_t>::compare(name.GetString(), key, length) == 0;
}

// The member entry for `key`, or MemberEnd(). `object` must be an object.
template <typename Object>
auto FindEntry(Object& object, const char16_t* key) {
  auto entry = object.MemberBegin();
  const auto end = object.MemberEnd();
  if (key == nullptr) return end;
  const size_t length = std::char_traits<char16_t>::length(key);
  for (; entry != end; ++entry) {
    if (KeyEquals(entry->name, key, length)) break;
  }
  return entry;
}

// Replaces the value of `key` in place (releasing the old one) or appends the key; `value` ends null.
void PutMember(MessageValue& object, const char16_t* key, MessageValue& value) {
  if (MessageValue* existing = MessageFindMember(object, key)) {
    *existing = value;  // releases what the old value owned, then takes over `value`
  } else {
    MessageAddMember(object, key, value);
  }
}

// The command `index` if the tree has the shape root.SIP.CMD[index] and that element is an object.
const MessageValue* CommandAt(const RequestMessage& message, int32_t index) {
  const MessageValue& commands = MessageLookup(MessageLookup(message.document, kKeySIP), kKeyCMD);
  if (!commands.IsArray() || index < 0 || static_cast<SizeType>(index) >= commands.Size()) return nullptr;
  const MessageValue& command = commands[static_cast<SizeType>(index)];
  return command.IsObject() ? &command : nullptr;
}

const MessageValue* DataAt(const RequestMessage& message, int32_t index) {
  const MessageValue* command = CommandAt(message, index);
  return command ? MessageFindMember(*command, kKeyDA) : nullptr;
}

// The "RAW" member of an object "DA", if there is one.
const MessageValue* RawOf(const MessageValue& data) {
  return data.IsObject() ? MessageFindMember(data, kKeyRAW) : nullptr;
}

void AppendUtf8(std::vector<uint8_t>& out, const MessageValue& text) {
  if (!text.IsString()) return;
  const std::string utf8 = WToUtf8(WStringView(text.GetString(), text.GetStringLength()));
  out.insert(out.end(), utf8.begin(), utf8.end());
}

void ReplaceData(RequestMessage& message, const std::vector<uint8_t>& bytes) {
  MessageValue& command = GetCurrentCommand(message);
  if (bytes.empty()) {
    MessageRemoveMember(command, kKeyDA);
  } else {
    SetDataBytes(message, command, bytes.data(), bytes.size());
  }
}

}  // namespace

// ---- Node level -------------------------------------------------------------------------------

uint32_t MessageTag(const MessageValue& value) {
  switch (value.GetType()) {
    case rapidjson::kNullType:
      return kMessageTypeNull;
    case rapidjson::kFalseType:
      return kMessageTagBoolean | kMessageTypeFalse;
    case rapidjson::kTrueType:
      return kMessageTagBoolean | kMessageTypeTrue;
    case rapidjson::kObjectType:
      return kMessageTypeObject;
    case rapidjson::kArrayType:
      return kMessageTypeArray;
    case rapidjson::kStringType: {
      StringOwnershipProbe probe;
      value.Accept(probe);
      return probe.owned ? kMessageTagOwnedString : kMessageTagConstString;
    }
    case rapidjson::kNumberType: {
      uint32_t tag = kMessageTagNumber | kMessageTypeNumber;
      if (value.IsInt()) tag |= kMessageTagInt32;
      if (value.IsUint()) tag |= kMessageTagUint32;
      if (value.IsInt64()) tag |= kMessageTagInt64;
      if (value.IsUint64()) tag |= kMessageTagUint64;
      if (value.IsDouble()) tag |= kMessageTagDouble;
      return tag;
    }
  }
  return kMessageTypeNull;
}

uint32_t MessageCapacity(const MessageValue& value) {
  if (value.IsObject()) return MemberTable(const_cast<MessageValue&>(value)).capacity;
  if (value.IsArray()) return value.Capacity();
  return 0;
}

MessageValue* MessageFindMember(MessageValue& object, const char16_t* key) {
  if (!object.IsObject()) return nullptr;
  auto entry = FindEntry(object, key);
  return entry == object.MemberEnd() ? nullptr : &entry->value;
}

const MessageValue* MessageFindMember(const MessageValue& object, const char16_t* key) {
  if (!object.IsObject()) return nullptr;
  auto entry = FindEntry(object, key);
  return entry == object.MemberEnd() ? nullptr : &entry->value;
}

const MessageValue& MessageLookup(const MessageValue& object, const char16_t* key) {
  const MessageValue* found = MessageFindMember(object, key);
  return found ? *found : SharedNull();
}

void MessageAddMember(MessageValue& object, const char16_t* key, MessageValue& value) {
  if (!object.IsObject() || key == nullptr) return;
  rapidjson::CrtAllocator heap;
  MakeRoomForMember(object, heap);
  MessageValue name(rapidjson::StringRef(key));
  object.AddMember(name, value, heap);
}

bool MessageRemoveMember(MessageValue& object, const char16_t* key) {
  if (!object.IsObject()) return false;
  auto entry = FindEntry(object, key);
  if (entry == object.MemberEnd()) return false;
  object.RemoveMember(entry);  // releases the member and moves the last one into the gap
  return true;
}

// ---- Message level ----------------------------------------------------------------------------

void ResetMessage(RequestMessage& message) {
  message.document.SetObject();
  message.commandIndex = 0;
  message.reserved = 0;

  MessageValue sip(rapidjson::kObjectType);
  MessageValue version(1u);
  MessageValue commands(rapidjson::kArrayType);
  MessageAddMember(sip, kKeyV, version);
  MessageAddMember(sip, kKeyCMD, commands);
  MessageAddMember(message.document, kKeySIP, sip);
}

void ConstructRequest(RequestMessage& message, uint32_t OC, uint32_t OE, uint32_t OI, uint32_t CA, uint32_t ST) {
  ResetMessage(message);
  InitCommand(message, GetCurrentCommand(message), OC, OE, OI, CA, ST);
}

MessageValue& GetCommandArray(RequestMessage& message) {
  MessageValue* sip = MessageFindMember(message.document, kKeySIP);
  MessageValue* commands = sip ? MessageFindMember(*sip, kKeyCMD) : nullptr;
  return commands ? *commands : SharedNull();
}

MessageValue& GetCurrentCommand(RequestMessage& message) {
  MessageValue& commands = GetCommandArray(message);
  if (!commands.IsArray() || message.commandIndex < 0) return SharedNull();
  const auto index = static_cast<SizeType>(message.commandIndex);
  rapidjson::CrtAllocator& heap = message.document.GetAllocator();
  while (commands.Size() <= index) {
    MessageValue empty(rapidjson::kObjectType);
    AppendElement(commands, empty, heap);
  }
  return commands[index];
}

uint32_t GetCommandValue(const RequestMessage& message, int32_t index, const char16_t* key, uint32_t def) {
  const MessageValue* command = CommandAt(message, index);
  const MessageValue* value = command ? MessageFindMember(*command, key) : nullptr;
  // The type is not checked: whatever the key holds is read as its low 32 bits.
  return value ? Low32(*value) : def;
}

bool HasCommandKey(const RequestMessage& message, int32_t index, const char16_t* key) {
  const MessageValue* command = CommandAt(message, index);
  return command && MessageFindMember(*command, key);
}

int SetCommandValue(RequestMessage& message, MessageValue& command, const char16_t* key, uint32_t value,
                    bool removeIfZero) {
  (void)message;
  if (!command.IsObject()) return 0;
  if (value == 0 && removeIfZero) {
    MessageRemoveMember(command, key);
    return 1;
  }
  MessageValue number(value);
  PutMember(command, key, number);
  return 1;
}

void InitCommand(RequestMessage& message, MessageValue& command, uint32_t OC, uint32_t OE, uint32_t OI) {
  if (&command == &SharedNull()) return;
  command.SetObject();
  SetCommandValue(message, command, kKeyOC, OC, false);
  SetCommandValue(message, command, kKeyOE, OE, true);
  SetCommandValue(message, command, kKeyOI, OI, true);
}

void InitCommand(RequestMessage& message, MessageValue& command, uint32_t OC, uint32_t OE, uint32_t OI, uint32_t CA,
                 uint32_t ST) {
  if (&command == &SharedNull()) return;
  InitCommand(message, command, OC, OE, OI);
  SetCommandValue(message, command, kKeyCA, CA, false);
  if (ST != ST_NONE) SetCommandValue(message, command, kKeyST, ST, false);
}

// ---- Data ("DA") ------------------------------------------------------------------------------

int64_t GetDataLength(const RequestMessage& message, int32_t index) {
  const MessageValue* data = DataAt(message, index);
  if (!data) return 0;
  const uint32_t tag = MessageTag(*data);

  if (tag & kMessageTagNumber) {
    // Negative numbers and doubles are no data the host can size.
    return (tag & (kMessageTagUint32 | kMessageTagUint64)) ? SizeByMagnitude(Payload(*data)) : 0;
  }
  if (tag & kMessageTagString) return int64_t{Count(*data)} + 1;  // with the terminator
  if (tag & kMessageTagBoolean) return 1;
  if (tag == kMessageTypeObject) {
    const MessageValue* raw = RawOf(*data);
    return raw ? Count(*raw) : 0;
  }
  if (tag != kMessageTypeArray || data->Empty()) return 0;

  // A list is sized by its first element: a string list or a number list.
  int64_t length = 0;
  switch (MessageTag((*data)[0]) & kMessageTypeMask) {
    case kMessageTypeString:
      for (const MessageValue& text : data->GetArray()) length += 2 * int64_t{Count(text)} + 2;
      return length + 2;  // the list's end
    case kMessageTypeNumber:
      for (const MessageValue& number : data->GetArray()) length += SizeByMagnitude(Payload(number));
      return length;
    default:
      return 0;
  }
}

int GetDataValue(const RequestMessage& message, int32_t index, uint32_t& out) {
  const MessageValue* data = DataAt(message, index);
  if (!data) return 0;
  if (MessageTag(*data) & kMessageTagUint32) {
    out = Low32(*data);
    return 1;
  }
  const MessageValue* raw = RawOf(*data);
  if (!raw || !raw->IsArray() || raw->Empty()) return 0;

  const SizeType count = raw->Size();
  if (count == 1) {
    out = Low32((*raw)[0]);
  } else if (count == 2) {
    out = static_cast<uint32_t>(LowByte((*raw)[1]) << 8 | LowByte((*raw)[0]));
  } else {
    // Little-endian over the first four elements; a three-byte stream reads as if a fourth byte 0
    // followed it.
    uint32_t value = count > 3 ? Low32((*raw)[3]) : 0;
    for (SizeType i = 3; i-- > 0;) value = (value << 8) + Low32((*raw)[i]);
    out = value;
  }
  return 1;
}

uint32_t GetDataType(const RequestMessage& message, int32_t index) {
  const MessageValue* data = DataAt(message, index);
  return data ? MessageTag(*data) & kMessageTypeMask : kMessageTypeNull;
}

int GetDataString(const RequestMessage& message, int32_t index, WString& out, uint32_t offset) {
  const MessageValue* data = DataAt(message, index);
  if (!data) return 0;
  if (data->IsNull()) {
    out.clear();
    return 1;
  }
  if (data->IsObject()) {
    out.clear();
    const MessageValue* raw = RawOf(*data);
    if (!raw || !raw->IsArray() || offset >= raw->Size()) return 0;
    if (!(MessageTag((*raw)[0]) & kMessageTagUint32)) return 0;
    std::string utf8;
    utf8.reserve(raw->Size() - offset);
    for (SizeType i = offset; i < raw->Size(); ++i) utf8.push_back(static_cast<char>(LowByte((*raw)[i])));
    out = WFromUtf8(utf8);
    return 1;
  }
  if (data->IsString() && offset == 0) {
    out.assign(data->GetString(), data->GetStringLength());
    return 1;
  }
  return 0;
}

int GetDataStream(const RequestMessage& message, int32_t index, std::vector<uint8_t>& out) {
  const MessageValue* data = DataAt(message, index);
  if (!data) return 0;
  const uint32_t tag = MessageTag(*data);

  if (data->IsObject()) {
    out.clear();
    const MessageValue* raw = RawOf(*data);
    if (raw && raw->IsArray() && !raw->Empty() && (MessageTag((*raw)[0]) & kMessageTagUint32)) {
      out.reserve(raw->Size());
      for (const MessageValue& byte : raw->GetArray()) out.push_back(LowByte(byte));
    }
    return 1;
  }
  if (data->IsArray()) {
    out.clear();
    if (!data->Empty() && (MessageTag((*data)[0]) & kMessageTagString)) {
      for (const MessageValue& text : data->GetArray()) {
        AppendUtf8(out, text);
        out.push_back(0);
      }
      out.push_back(0);
    }
    return 1;
  }
  if (data->IsString()) {
    out.clear();
    AppendUtf8(out, *data);
    out.push_back(0);
    return 1;
  }
  if (tag & (kMessageTagUint32 | kMessageTagUint64)) {
    out.clear();
    const uint64_t number = Payload(*data);
    const int64_t size = SizeByMagnitude(number);
    for (int64_t i = 0; i < size; ++i) out.push_back(static_cast<uint8_t>(number >> (8 * i)));
    return 1;
  }
  return 0;
}

bool HasRawData(const RequestMessage& message) {
  const MessageValue* data = DataAt(message, message.commandIndex);
  return data && RawOf(*data);
}

int HasValidData(const RequestMessage& message, int64_t wantedLength, bool atLeast) {
  const uint32_t status = GetCommandValue(message, message.commandIndex, kKeyST, ST_ABSENT);
  if (status != ST_OK && status != kForeignDataStatusA && status != kForeignDataStatusB && status != ST_PARKED) {
    return 0;
  }
  const MessageValue* data = DataAt(message, message.commandIndex);
  if (!data) return 0;
  if (wantedLength == 0 || data->IsNumber()) return 1;
  const int64_t length = GetDataLength(message, message.commandIndex);
  return (atLeast ? length >= wantedLength : length == wantedLength) ? 1 : 0;
}

int SetDataBytes(RequestMessage& message, MessageValue& command, const uint8_t* bytes, size_t count) {
  if (!command.IsObject()) return 0;
  rapidjson::CrtAllocator& heap = message.document.GetAllocator();
  MessageValue raw(rapidjson::kArrayType);
  // Storage for the whole stream at once, with the capacity that growth by doubling from 16 reaches.
  if (count) {
    SizeType capacity = 16;
    while (capacity < count) capacity *= 2;
    raw.Reserve(capacity, heap);
  }
  // Elements are appended empty and given their number in place: a byte value built aside and
  // copied in costs a stalled 16-byte reload per element, several times the rest of the loop.
  for (size_t i = 0; i < count; ++i) {
    MessageValue empty;
    AppendElement(raw, empty, heap);
  }
  // A null holds nothing to release, so each one is simply built over.
  MessageValue* elements = raw.Begin();
  for (size_t i = 0; i < count; ++i) new (&elements[i]) MessageValue(static_cast<unsigned>(bytes[i]));
  MessageValue data(rapidjson::kObjectType);
  MessageAddMember(data, kKeyRAW, raw);
  PutMember(command, kKeyDA, data);
  return 1;
}

int SetDataNumber(RequestMessage& message, MessageValue& command, uint32_t value, int size) {
  (void)size;  // callers state the width they mean; the host sizes a number by its magnitude
  return SetCommandValue(message, command, kKeyDA, value, false);
}

int SetDataString(RequestMessage& message, MessageValue& command, WStringView text) {
  if (!command.IsObject()) return 0;
  // The copy is made before the old data is released, so `text` may point into that data.
  // RapidJSON refuses a null pointer even for an empty text.
  const char16_t* characters = text.data() ? text.data() : u"";
  MessageValue copy(characters, static_cast<SizeType>(text.size()), message.document.GetAllocator());
  PutMember(command, kKeyDA, copy);
  return 1;
}

void ClearData(RequestMessage& message, uint32_t status) {
  MessageValue& command = GetCurrentCommand(message);
  MessageRemoveMember(command, kKeyDA);
  SetCommandValue(message, command, kKeyST, status, false);
}

// ---- Replies ----------------------------------------------------------------------------------

void ReplyByte(RequestMessage& message, uint8_t value, uint32_t status) {
  MessageValue& command = GetCurrentCommand(message);
  SetDataNumber(message, command, value, 1);
  SetCommandValue(message, command, kKeyST, status, false);
}

void ReplyValue(RequestMessage& message, uint32_t value, uint32_t status) {
  MessageValue& command = GetCurrentCommand(message);
  SetDataNumber(message, command, value, 4);
  SetCommandValue(message, command, kKeyST, status, false);
}

void ReplyString(RequestMessage& message, WStringView text, uint32_t status) {
  MessageValue& command = GetCurrentCommand(message);
  SetDataString(message, command, text);
  SetCommandValue(message, command, kKeyST, status, false);
}

void ReplyString(RequestMessage& message, const char16_t* text, uint32_t status) {
  ReplyString(message, text ? WStringView(text) : WStringView(), status);
}

void ReplyBytes(RequestMessage& message, const std::vector<uint8_t>& bytes, uint32_t status) {
  ReplaceData(message, bytes);
  SetCommandValue(message, GetCurrentCommand(message), kKeyST, status, false);
}

void EventBytes(RequestMessage& message, const std::vector<uint8_t>& bytes) {
  ReplaceData(message, bytes);
  MessageRemoveMember(GetCurrentCommand(message), kKeyST);
}
