// Conversion between JSON text (UTF-8) and one command of a request message, for the host's
// scripted face and for tests that write their commands as JSON.
//
// Values of a command ("OC" ... "ST" and "DA") follow one rule in both directions:
//   JSON integer        number (unsigned when not negative, signed otherwise)
//   JSON string         wide text (an owned copy)
//   {"RAW":[1,2,...]}   byte stream: an object whose "RAW" array holds one number per byte
//   ["a","b"]           string list        [1,2]  number list
//   null                null value         true/false and fractions pass as themselves
#pragma once

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/RequestMessage.h"

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

// The deepest nesting of arrays and objects a JSON text or value may have (the line's own object
// is the first level). A command needs three at most; the bound keeps the reading and the
// conversion, which follow the nesting, within a small fixed stack at any depth of input.
constexpr int kMaxJsonDepth = 64;

// Parses one JSON text (UTF-8) into `json` without recursion. False, with a reason, for malformed
// text and for nesting deeper than kMaxJsonDepth (refused as soon as it is seen).
bool ParseJsonText(std::string_view text, rapidjson::Document& json, std::string& error);

// One JSON value as a message value, allocated from `heap`. False (with a reason) for a value
// the message cannot carry: an object other than {"RAW":[bytes]}, a byte outside 0..255, nesting
// deeper than kMaxJsonDepth.
bool JsonToMessageValue(const rapidjson::Value& json, MessageValue& out, rapidjson::CrtAllocator& heap,
                        std::string& error);

// One message value as JSON.
void WriteMessageValue(const MessageValue& value, JsonWriter& writer);

// Gives `message` a fresh tree with one command built from the keys "OC", "OE", "OI", "CA", "MI",
// "ST" and "DA" of `object`; other keys (such as "op") are ignored, a key left out stays absent.
// "OC" is required. The command is the current one (commandIndex 0).
bool CommandFromJson(const rapidjson::Value& object, RequestMessage& message, std::string& error);
bool CommandFromJsonText(std::string_view text, RequestMessage& message, std::string& error);

// The command at `index`, or null when the tree has none there. Never changes the message.
const MessageValue* FindCommand(const RequestMessage& message, int32_t index);
// The same, with an empty object standing in for a missing command.
const MessageValue& CommandOrEmpty(const RequestMessage& message, int32_t index);

// Makes `target` a fresh message whose only command is a deep copy of `command`: every key and
// text is owned by `target`, so the copy stays valid after the module file that wrote the
// original has been unloaded.
void CopyCommand(const MessageValue& command, RequestMessage& target);

// {"op":"reply","OC":..,"ret":..,"ST":..,"DA":..} for the current command of `message` after a
// call: "ret" only when given, "ST" null when absent, "DA" left out when absent.
std::string ReplyJsonLine(const RequestMessage& message, std::optional<int> ret);

// {"op":<op>,"OC":..,"OE":..,"OI":..,"CA":..,"MI":..,"ST":..,"DA":..} with every key the command
// holds, in that order, then any other keys in the command's order, then the extra number if
// `extraKey` is given.
std::string CommandJsonLine(std::string_view op, const MessageValue& command, const char* extraKey = nullptr,
                            uint64_t extraValue = 0);
