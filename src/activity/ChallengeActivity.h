#pragma once

#include <string>
#include <string_view>

#include "activity/AppActivity.h"
#include "collector/QSChallenge.h"
#include "quarrystone/platform/Crypto.h"

namespace qs {

// Builds the "QS329" answer to a collector challenge: the challenge's
// timestamp and signed hash echoed, the device model, and the challenge's
// uuid reversed. Runs on its caller's thread.
class ChallengeActivity : public AppActivity {
 public:
  using AppActivity::AppActivity;

  Value prepareActivityData(const QSChallenge& challenge);
  // The text with its composed character sequences (extended grapheme
  // clusters) in reverse order; each sequence stays intact.
  static std::string reverseString(std::string_view text, Text& textService);
};

}  // namespace qs
