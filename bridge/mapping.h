// How TARN meets MQTT: the topics a device's states, triggers, status, calls and errors live on,
// the payload of a value (JSON or plain text), and the reading of a call's JSON payload into a
// ParameterList that is sure to fit one TARN message. Plain functions: no state, no threads.
//
// Topics, for root R and device D:
//   R/D/state/NAME    retained, the last value of each subscribed state
//   R/D/trigger/NAME  not retained, each trigger
//   R/D/status        retained, "online" or "offline"
//   R/D/call/FID      written by MQTT clients: calls function FID on the device
//   R/D/error         not retained, why a call was refused
//   R/B/status        retained, the bridge's own "online"/"offline" (B its name), also its last will
#ifndef TARN_BRIDGE_MAPPING_H
#define TARN_BRIDGE_MAPPING_H

#include <string>

#include <parameterlist.h>

namespace tarnbridge {

// Room for a call's body in one TARN message.
const std::size_t kBodyRoom = 1488;

std::string stateTopic(const std::string& root, const std::string& device, const std::string& name);
std::string triggerTopic(const std::string& root, const std::string& device, const std::string& name);
std::string statusTopic(const std::string& root, const std::string& device);
std::string errorTopic(const std::string& root, const std::string& device);
// The filter the bridge subscribes to for a device's calls: R/D/call/#
std::string callFilter(const std::string& root, const std::string& device);

// A name that makes one topic level: not empty, no '/', '+', '#' or NUL.
bool validLevel(const std::string& name);
// A name that ends a topic (a state, trigger or function name): not empty, no '+', '#' or NUL;
// '/' is allowed and makes further levels.
bool validTail(const std::string& name);
// A topic root: one or more levels, none empty, no wildcard, NUL, or leading '$'.
bool validRoot(const std::string& root);

// The function named by `topic` when it is R/D/call/FID of this root and device; false otherwise
// (also for an empty FID).
bool callFunction(const std::string& root, const std::string& device, const std::string& topic,
                  std::string& function);

// "string", "int", "bool", "float", "none", or "unknown" for a foreign tag.
std::string typeName(const ParameterValue& value);

// {"type":"float","value":21.5}. NaN and the infinities are written as the strings "nan", "inf"
// and "-inf"; a value without a type's value (none, foreign tags) as null.
std::string jsonPayload(const ParameterValue& value);
// The plain text of a value: a string as it is, an integer in decimal, "true"/"false", a float in
// its shortest form, "" for none. An empty payload on a retained topic clears it at the broker.
std::string rawPayload(const ParameterValue& value);

// Reads a call's payload: a JSON object whose members are the parameters, each either typed,
// {"type":"int","value":3} (string, int, bool, float), or a plain JSON value: a string, true or
// false, an integer (int) or a number with a fraction or exponent (float). A float may be given
// as "nan", "inf" or "-inf" in the typed form. False with a one-line reason for anything else:
// no JSON object, a member of another shape, an integer outside 32 bits, a float outside the
// float's range, an empty or repeated name, or a call that does not fit one TARN message.
bool parseCall(const std::string& function, const std::string& payload, ParameterList& out,
               std::string& error);

// The payload published on R/D/error: {"topic":...,"function":...,"error":...}
std::string errorPayload(const std::string& topic, const std::string& function, const std::string& error);

}  // namespace tarnbridge

#endif  // TARN_BRIDGE_MAPPING_H
