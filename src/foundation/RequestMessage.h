// The request message: the one record that carries every request, reply, event and alert between
// the host and the module. It is a tree of RapidJSON values with 16-bit characters; the host and the
// module are built against the same RapidJSON headers and hand the record to each other by address.
//
// Shape after ResetMessage:
//   root  { "SIP": { "V": 1, "CMD": [ {command}, ... ] } }
// A command holds the keys "OC", "OE", "OI", "CA", "MI", "ST" and "DA" (see the constants below).
// Every reader tolerates a tree of the wrong shape and returns its default; every writer refuses a
// command that is not an object and writes nothing.
//
// A message is used by one thread at a time.
#pragma once

#include <rapidjson/document.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/WString.h"

using MessageValue = rapidjson::GenericValue<rapidjson::UTF16<char16_t>, rapidjson::CrtAllocator>;
using MessageDocument =
    rapidjson::GenericDocument<rapidjson::UTF16<char16_t>, rapidjson::CrtAllocator, rapidjson::CrtAllocator>;

// Keys of the tree. They are constants: a key written into a message is referenced, not copied.
inline constexpr const char16_t* kKeyOC = u"OC";    // opcode
inline constexpr const char16_t* kKeyOE = u"OE";    // opcode extension / configuration item
inline constexpr const char16_t* kKeyOI = u"OI";    // object identifier
inline constexpr const char16_t* kKeyCA = u"CA";    // cabinet identifier
inline constexpr const char16_t* kKeyMI = u"MI";    // message identifier, set by the host
inline constexpr const char16_t* kKeyST = u"ST";    // status
inline constexpr const char16_t* kKeyDA = u"DA";    // data
inline constexpr const char16_t* kKeyRAW = u"RAW";  // byte stream inside an object "DA"
inline constexpr const char16_t* kKeySIP = u"SIP";
inline constexpr const char16_t* kKeyV = u"V";
inline constexpr const char16_t* kKeyCMD = u"CMD";

// Status values ("ST").
inline constexpr uint32_t ST_OK = 0;
inline constexpr uint32_t ST_DENIED = 1;            // opcode not handled here, or a thread could not start
inline constexpr uint32_t ST_ILLEGAL = 2;           // illegal object identifier or command, or no data yet
inline constexpr uint32_t ST_FAILED = 6;            // wrong parameter, failed setting, or no host
inline constexpr uint32_t ST_NOT_AVAILABLE = 19;    // value not found, data locked, entry missing
inline constexpr uint32_t ST_ILLEGAL_CABINET = 20;  // request for another cabinet
inline constexpr uint32_t ST_ABSENT = 22;           // what a reader takes when "ST" is missing; never written
inline constexpr uint32_t ST_PARKED = 255;          // while an event is in the host's hands
// Passed as the status of ConstructRequest / InitCommand: write no "ST" key at all.
inline constexpr uint32_t ST_NONE = 0xFFFFFFFF;

// Type tags of a value, as the host reads them. The low byte is the type, the bits above qualify it.
inline constexpr uint32_t kMessageTypeNull = 0;
inline constexpr uint32_t kMessageTypeFalse = 1;
inline constexpr uint32_t kMessageTypeTrue = 2;
inline constexpr uint32_t kMessageTypeObject = 3;
inline constexpr uint32_t kMessageTypeArray = 4;
inline constexpr uint32_t kMessageTypeString = 5;
inline constexpr uint32_t kMessageTypeNumber = 6;
inline constexpr uint32_t kMessageTypeMask = 0xFF;

inline constexpr uint32_t kMessageTagBoolean = 0x100;
inline constexpr uint32_t kMessageTagNumber = 0x200;
inline constexpr uint32_t kMessageTagInt32 = 0x400;
inline constexpr uint32_t kMessageTagUint32 = 0x800;
inline constexpr uint32_t kMessageTagInt64 = 0x1000;
inline constexpr uint32_t kMessageTagUint64 = 0x2000;
inline constexpr uint32_t kMessageTagDouble = 0x4000;
inline constexpr uint32_t kMessageTagString = 0x100000;
inline constexpr uint32_t kMessageTagOwned = 0x200000;

// Whole tags that occur in practice.
inline constexpr uint32_t kMessageTagConstString = 0x100005;  // references a constant, as every key does
inline constexpr uint32_t kMessageTagOwnedString = 0x300005;  // a heap copy that the value frees
inline constexpr uint32_t kMessageTagNegative = 0x1606;       // negative signed number
inline constexpr uint32_t kMessageTagHighUint = 0x3A06;       // unsigned number with bit 31 set
inline constexpr uint32_t kMessageTagSmallUint = 0x3E06;      // number from 0 to 0x7FFFFFFF

// One message. The document is the root value together with its allocation context (allocator and a
// 256-byte scratch stack). A fresh record has an empty object as root; ResetMessage or ConstructRequest
// gives it the tree shape. The record owns its tree and frees it on destruction.
struct RequestMessage {
  RequestMessage() = default;
  RequestMessage(const RequestMessage&) = delete;
  RequestMessage& operator=(const RequestMessage&) = delete;

  uint64_t reserved = 0;  // cleared at reset, read by nothing in the module
  MessageDocument document{rapidjson::kObjectType, nullptr, 256};
  int32_t commandIndex = 0;  // the command that the current call is about
};

// ---- Node level -------------------------------------------------------------------------------

// The type tag of a value (see the kMessageType* / kMessageTag* constants).
uint32_t MessageTag(const MessageValue& value);

// Allocated members of an object or elements of an array; 0 for anything else.
uint32_t MessageCapacity(const MessageValue& value);

// Linear search from the first member; the first exact match wins. Null if absent or not an object.
MessageValue* MessageFindMember(MessageValue& object, const char16_t* key);
const MessageValue* MessageFindMember(const MessageValue& object, const char16_t* key);

// The value of a member, or a shared null value on a miss or when `object` is no object.
// The shared value is never written by any operation here.
const MessageValue& MessageLookup(const MessageValue& object, const char16_t* key);

// Appends a member without searching; the caller makes sure the key is absent. The key must be a
// constant that outlives the message (it is referenced, not copied). The value is moved in and left
// null. Nothing happens if `object` is no object.
void MessageAddMember(MessageValue& object, const char16_t* key, MessageValue& value);

// Removes a member; the last member moves into its place. False if absent or `object` is no object.
bool MessageRemoveMember(MessageValue& object, const char16_t* key);

// ---- Message level ----------------------------------------------------------------------------

// Releases the whole tree and rebuilds the empty shape { "SIP": { "V": 1, "CMD": [] } }.
void ResetMessage(RequestMessage& message);

// Builds an outgoing request: a fresh tree with one command carrying OC, CA (always), OE and OI (when
// not 0) and ST (unless it is ST_NONE).
void ConstructRequest(RequestMessage& message, uint32_t OC, uint32_t OE, uint32_t OI, uint32_t CA, uint32_t ST);

// The "CMD" array, or the shared null value when the tree lacks it.
MessageValue& GetCommandArray(RequestMessage& message);

// The command at message.commandIndex, appending empty commands until it exists. Returns the shared
// null value (which every writer refuses) when the tree has no command array or the index is negative.
MessageValue& GetCurrentCommand(RequestMessage& message);

// Low 32 bits of the key's value in command `index`, or `def` when the command or the key is missing.
// Read "ST" with ST_ABSENT as default, every other key with 0.
uint32_t GetCommandValue(const RequestMessage& message, int32_t index, const char16_t* key, uint32_t def);
bool HasCommandKey(const RequestMessage& message, int32_t index, const char16_t* key);

// Writes the number under `key`, replacing (and releasing) an old value in place or appending the key.
// With value 0 and removeIfZero the key is removed instead. Returns 0 if `command` is no object, else 1.
int SetCommandValue(RequestMessage& message, MessageValue& command, const char16_t* key, uint32_t value,
                    bool removeIfZero);

// Turns `command` into a fresh command: OC always, OE and OI only when not 0; the second form also
// writes CA always and ST unless it is ST_NONE.
void InitCommand(RequestMessage& message, MessageValue& command, uint32_t OC, uint32_t OE, uint32_t OI);
void InitCommand(RequestMessage& message, MessageValue& command, uint32_t OC, uint32_t OE, uint32_t OI, uint32_t CA,
                 uint32_t ST);

// ---- Data ("DA") ------------------------------------------------------------------------------

// Length of the data of command `index` in bytes as the host counts it; 0 when there is none.
int64_t GetDataLength(const RequestMessage& message, int32_t index);
// A 32-bit value from an unsigned number or from a "RAW" byte stream (little-endian). 1 on success.
int GetDataValue(const RequestMessage& message, int32_t index, uint32_t& out);
// Type byte of the data (kMessageType*), 0 when absent.
uint32_t GetDataType(const RequestMessage& message, int32_t index);
// Text of a string, or of a UTF-8 "RAW" stream from byte `offset` on. 1 on success.
int GetDataString(const RequestMessage& message, int32_t index, WString& out, uint32_t offset);
// The data as bytes: "RAW" streams, texts and string lists as UTF-8, numbers little-endian. 1 on success.
int GetDataStream(const RequestMessage& message, int32_t index, std::vector<uint8_t>& out);
// For the current command: "DA" is an object with "RAW".
bool HasRawData(const RequestMessage& message);
// For the current command: the status says data may follow and the data has the wanted length (at least
// it, with atLeast). A numeric "DA" always passes; wantedLength 0 asks only for presence.
int HasValidData(const RequestMessage& message, int64_t wantedLength, bool atLeast);

// "DA" becomes { "RAW": [bytes...] }, one number per byte. 0 if `command` is no object.
int SetDataBytes(RequestMessage& message, MessageValue& command, const uint8_t* bytes, size_t count);
// "DA" becomes the number. `size` (1 or 4, as callers pass it) does not change the stored value.
int SetDataNumber(RequestMessage& message, MessageValue& command, uint32_t value, int size);
// "DA" becomes an owned copy of the text.
int SetDataString(RequestMessage& message, MessageValue& command, WStringView text);
// Removes "DA" from the current command and sets its status.
void ClearData(RequestMessage& message, uint32_t status);

// ---- Replies on the current command: "DA" first, then "ST" ------------------------------------

void ReplyByte(RequestMessage& message, uint8_t value, uint32_t status);
void ReplyValue(RequestMessage& message, uint32_t value, uint32_t status);
void ReplyString(RequestMessage& message, WStringView text, uint32_t status);
void ReplyString(RequestMessage& message, const char16_t* text, uint32_t status);
// An empty vector removes "DA".
void ReplyBytes(RequestMessage& message, const std::vector<uint8_t>& bytes, uint32_t status);
// Data of an outgoing event: as ReplyBytes, but the command ends without "ST"; the event path sets it.
void EventBytes(RequestMessage& message, const std::vector<uint8_t>& bytes);
