#include "activity/ChallengeActivity.h"

#include "quarrystone/QSFieldsMapping.h"

namespace qs {

Value ChallengeActivity::prepareActivityData(const QSChallenge& challenge) {
  Value details = Value::object();
  const std::string model = utils_.deviceModel();
  const std::string reversed = reverseString(challenge.uuid(), *platform_.text);
  // A challenge without a readable timestamp or hash still gets a well-formed
  // record: the value is sent as null.
  details[QSFM_CHALLENGE_TS] = challenge.timestamp().value_or(Value());
  details[QSFM_DEVICE_MODEL] = model;
  details[QSFM_CHALLENGE_SIGNED] = challenge.signedHash();
  details[QSFM_CHALLENGE_RESULT] = reversed;
  return toQSActivityPayload(std::move(details), QSFM_APP_CHALLENGE);
}

std::string ChallengeActivity::reverseString(std::string_view text, Text& textService) {
  std::string reversed;
  reversed.reserve(text.size());
  std::vector<std::size_t> starts = textService.graphemeStarts(text);
  std::size_t end = text.size();
  for (auto it = starts.rbegin(); it != starts.rend(); ++it) {
    if (*it >= end) continue;  // tolerate a service that reports odd offsets
    reversed.append(text.substr(*it, end - *it));
    end = *it;
  }
  if (end > 0) reversed.append(text.substr(0, end));
  return reversed;
}

}  // namespace qs
