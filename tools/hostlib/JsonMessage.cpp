#include "hostlib/JsonMessage.h"

#include <rapidjson/encodedstream.h>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <array>
#include <cstring>

namespace {

// The keys of a command in the order the host prints them. The pointers are the message's own
// constants, so a command built here references keys that live as long as the host program.
constexpr std::array<const char16_t*, 7> kCommandKeys = {kKeyOC, kKeyOE, kKeyOI, kKeyCA, kKeyMI, kKeyST, kKeyDA};

const char16_t* KnownKey(WStringView name) {
  for (const char16_t* key : kCommandKeys)
    if (name == key) return key;
  if (name == kKeyRAW) return kKeyRAW;
  return nullptr;
}

WStringView NameOf(const MessageValue& name) {
  return WStringView(name.GetString(), name.GetStringLength());
}

void WriteKey(JsonWriter& writer, WStringView key) {
  const std::string utf8 = WToUtf8(key);
  writer.Key(utf8.data(), static_cast<rapidjson::SizeType>(utf8.size()));
}

// A copy whose texts and member names all belong to `heap`; names the message knows keep
// pointing at the message's constants, as the module's own commands do.
MessageValue DeepCopy(const MessageValue& from, rapidjson::CrtAllocator& heap) {
  if (from.IsString()) return MessageValue(from.GetString(), from.GetStringLength(), heap);
  if (from.IsArray()) {
    MessageValue array(rapidjson::kArrayType);
    array.Reserve(from.Size(), heap);
    for (const MessageValue& element : from.GetArray()) array.PushBack(DeepCopy(element, heap), heap);
    return array;
  }
  if (from.IsObject()) {
    MessageValue object(rapidjson::kObjectType);
    for (const auto& member : from.GetObject()) {
      MessageValue value = DeepCopy(member.value, heap);
      if (const char16_t* key = KnownKey(NameOf(member.name))) {
        MessageAddMember(object, key, value);
      } else {
        MessageValue name(member.name.GetString(), member.name.GetStringLength(), heap);
        object.AddMember(name, value, heap);
      }
    }
    return object;
  }
  // Numbers, booleans and null hold no pointers; RapidJSON's copy keeps their exact type flags.
  return MessageValue(from, heap);
}

// Passes a reader's events on to `target` and stops the reading at the first array or object
// that nests deeper than kMaxJsonDepth.
template <class Handler>
struct DepthLimitedHandler {
  Handler& target;
  int depth = 0;
  bool tooDeep = false;

  bool Null() { return target.Null(); }
  bool Bool(bool b) { return target.Bool(b); }
  bool Int(int i) { return target.Int(i); }
  bool Uint(unsigned u) { return target.Uint(u); }
  bool Int64(int64_t i) { return target.Int64(i); }
  bool Uint64(uint64_t u) { return target.Uint64(u); }
  bool Double(double d) { return target.Double(d); }
  bool RawNumber(const char* s, rapidjson::SizeType n, bool copy) { return target.RawNumber(s, n, copy); }
  bool String(const char* s, rapidjson::SizeType n, bool copy) { return target.String(s, n, copy); }
  bool Key(const char* s, rapidjson::SizeType n, bool copy) { return target.Key(s, n, copy); }
  bool StartObject() { return Enter() && target.StartObject(); }
  bool EndObject(rapidjson::SizeType members) {
    --depth;
    return target.EndObject(members);
  }
  bool StartArray() { return Enter() && target.StartArray(); }
  bool EndArray(rapidjson::SizeType elements) {
    --depth;
    return target.EndArray(elements);
  }

 private:
  bool Enter() {
    tooDeep = ++depth > kMaxJsonDepth;
    return !tooDeep;
  }
};

bool ToMessageValue(const rapidjson::Value& json, MessageValue& out, rapidjson::CrtAllocator& heap, std::string& error,
                    int depth) {
  if ((json.IsArray() || json.IsObject()) && depth > kMaxJsonDepth) {
    error = "nested deeper than " + std::to_string(kMaxJsonDepth) + " levels";
    return false;
  }
  if (json.IsNull()) {
    out.SetNull();
  } else if (json.IsBool()) {
    out.SetBool(json.GetBool());
  } else if (json.IsUint64()) {
    out = MessageValue(json.GetUint64());
  } else if (json.IsInt64()) {
    out = MessageValue(json.GetInt64());
  } else if (json.IsNumber()) {
    out = MessageValue(json.GetDouble());
  } else if (json.IsString()) {
    const WString text = WFromUtf8(std::string_view(json.GetString(), json.GetStringLength()));
    out.SetString(text.data(), static_cast<rapidjson::SizeType>(text.size()), heap);
  } else if (json.IsArray()) {
    MessageValue array(rapidjson::kArrayType);
    array.Reserve(json.Size(), heap);
    for (const rapidjson::Value& element : json.GetArray()) {
      MessageValue value;
      if (!ToMessageValue(element, value, heap, error, depth + 1)) return false;
      array.PushBack(value, heap);
    }
    out = std::move(array);
  } else {
    // The only object a command carries is a byte stream.
    const auto raw = json.FindMember("RAW");
    if (json.MemberCount() != 1 || raw == json.MemberEnd() || !raw->value.IsArray()) {
      error = "an object value must be {\"RAW\":[bytes]}";
      return false;
    }
    MessageValue bytes(rapidjson::kArrayType);
    bytes.Reserve(raw->value.Size(), heap);
    for (const rapidjson::Value& element : raw->value.GetArray()) {
      if (!element.IsUint() || element.GetUint() > 0xFF) {
        error = "\"RAW\" holds bytes from 0 to 255";
        return false;
      }
      bytes.PushBack(MessageValue(element.GetUint()), heap);
    }
    MessageValue object(rapidjson::kObjectType);
    MessageAddMember(object, kKeyRAW, bytes);
    out = std::move(object);
  }
  return true;
}

}  // namespace

bool ParseJsonText(std::string_view text, rapidjson::Document& json, std::string& error) {
  rapidjson::ParseResult result;
  bool tooDeep = false;
  // The iterative reader keeps its state on the heap; the depth limit keeps that state small.
  auto generator = [&](rapidjson::Document& document) {
    rapidjson::MemoryStream bytes(text.data(), text.size());
    rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> stream(bytes);
    DepthLimitedHandler<rapidjson::Document> limited{document};
    rapidjson::Reader reader;
    result = reader.Parse<rapidjson::kParseIterativeFlag>(stream, limited);
    tooDeep = limited.tooDeep;
    return !result.IsError();
  };
  json.SetNull();
  json.Populate(generator);
  if (!result.IsError()) return true;
  json.SetNull();
  if (tooDeep)
    error = "JSON nested deeper than " + std::to_string(kMaxJsonDepth) + " levels at offset " +
            std::to_string(result.Offset());
  else
    error = std::string("malformed JSON at offset ") + std::to_string(result.Offset()) + ": " +
            rapidjson::GetParseError_En(result.Code());
  return false;
}

bool JsonToMessageValue(const rapidjson::Value& json, MessageValue& out, rapidjson::CrtAllocator& heap,
                        std::string& error) {
  return ToMessageValue(json, out, heap, error, 1);
}

void WriteMessageValue(const MessageValue& value, JsonWriter& writer) {
  if (value.IsNull()) {
    writer.Null();
  } else if (value.IsBool()) {
    writer.Bool(value.GetBool());
  } else if (value.IsUint64()) {
    writer.Uint64(value.GetUint64());
  } else if (value.IsInt64()) {
    writer.Int64(value.GetInt64());
  } else if (value.IsNumber()) {
    writer.Double(value.GetDouble());
  } else if (value.IsString()) {
    const std::string utf8 = WToUtf8(WStringView(value.GetString(), value.GetStringLength()));
    writer.String(utf8.data(), static_cast<rapidjson::SizeType>(utf8.size()));
  } else if (value.IsArray()) {
    writer.StartArray();
    for (const MessageValue& element : value.GetArray()) WriteMessageValue(element, writer);
    writer.EndArray();
  } else {
    writer.StartObject();
    for (const auto& member : value.GetObject()) {
      WriteKey(writer, NameOf(member.name));
      WriteMessageValue(member.value, writer);
    }
    writer.EndObject();
  }
}

bool CommandFromJson(const rapidjson::Value& object, RequestMessage& message, std::string& error) {
  if (!object.IsObject()) {
    error = "a command must be a JSON object";
    return false;
  }
  if (!object.HasMember("OC")) {
    error = "the command has no \"OC\"";
    return false;
  }
  ResetMessage(message);
  message.commandIndex = 0;
  MessageValue& command = GetCurrentCommand(message);
  auto& heap = message.document.GetAllocator();
  for (const char16_t* key : kCommandKeys) {
    const std::string name = WToUtf8(key);
    const auto member = object.FindMember(name.c_str());
    if (member == object.MemberEnd()) continue;
    MessageValue value;
    if (!JsonToMessageValue(member->value, value, heap, error)) {
      error = "\"" + name + "\": " + error;
      ResetMessage(message);
      return false;
    }
    MessageAddMember(command, key, value);
  }
  return true;
}

bool CommandFromJsonText(std::string_view text, RequestMessage& message, std::string& error) {
  rapidjson::Document json;
  if (!ParseJsonText(text, json, error)) return false;
  return CommandFromJson(json, message, error);
}

const MessageValue* FindCommand(const RequestMessage& message, int32_t index) {
  const MessageValue* sip = MessageFindMember(message.document, kKeySIP);
  const MessageValue* list = sip ? MessageFindMember(*sip, kKeyCMD) : nullptr;
  if (!list || !list->IsArray() || index < 0 || static_cast<rapidjson::SizeType>(index) >= list->Size()) return nullptr;
  return &(*list)[static_cast<rapidjson::SizeType>(index)];
}

const MessageValue& CommandOrEmpty(const RequestMessage& message, int32_t index) {
  static const MessageValue empty(rapidjson::kObjectType);
  const MessageValue* command = FindCommand(message, index);
  return command ? *command : empty;
}

void CopyCommand(const MessageValue& command, RequestMessage& target) {
  ResetMessage(target);
  target.commandIndex = 0;
  MessageValue& slot = GetCurrentCommand(target);
  MessageValue copy = DeepCopy(command, target.document.GetAllocator());
  slot = std::move(copy);
}

std::string ReplyJsonLine(const RequestMessage& message, std::optional<int> ret) {
  rapidjson::StringBuffer buffer;
  JsonWriter writer(buffer);
  writer.StartObject();
  writer.Key("op");
  writer.String("reply");
  const MessageValue* command = FindCommand(message, message.commandIndex);
  const MessageValue* oc = command ? MessageFindMember(*command, kKeyOC) : nullptr;
  writer.Key("OC");
  if (oc)
    WriteMessageValue(*oc, writer);
  else
    writer.Null();
  if (ret) {
    writer.Key("ret");
    writer.Int(*ret);
  }
  writer.Key("ST");
  if (const MessageValue* st = command ? MessageFindMember(*command, kKeyST) : nullptr)
    WriteMessageValue(*st, writer);
  else
    writer.Null();
  if (const MessageValue* da = command ? MessageFindMember(*command, kKeyDA) : nullptr) {
    writer.Key("DA");
    WriteMessageValue(*da, writer);
  }
  writer.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize());
}

std::string CommandJsonLine(std::string_view op, const MessageValue& command, const char* extraKey,
                            uint64_t extraValue) {
  rapidjson::StringBuffer buffer;
  JsonWriter writer(buffer);
  writer.StartObject();
  writer.Key("op");
  writer.String(op.data(), static_cast<rapidjson::SizeType>(op.size()));
  if (command.IsObject()) {
    for (const char16_t* key : kCommandKeys) {
      if (const MessageValue* value = MessageFindMember(command, key)) {
        WriteKey(writer, key);
        WriteMessageValue(*value, writer);
      }
    }
    for (const auto& member : command.GetObject()) {
      const WStringView name = NameOf(member.name);
      bool known = false;
      for (const char16_t* key : kCommandKeys) known = known || name == key;
      if (known) continue;
      WriteKey(writer, name);
      WriteMessageValue(member.value, writer);
    }
  }
  if (extraKey) {
    writer.Key(extraKey);
    writer.Uint64(extraValue);
  }
  writer.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize());
}
