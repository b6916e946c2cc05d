#include "BlockPage.h"

namespace qs::sandbox {

namespace {

constexpr std::string_view kHead = R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>@TITLE@</title>
<style>
*{box-sizing:border-box}
html,body{height:100%;margin:0}
body{display:flex;align-items:center;justify-content:center;padding:24px;
 font:16px/1.5 system-ui,-apple-system,"Segoe UI",Roboto,"Helvetica Neue",Arial,sans-serif;
 color:#1f2430;background:linear-gradient(160deg,#eef2f7 0%,#d9e1ec 100%)}
.card{width:100%;max-width:380px;background:#fff;border-radius:18px;padding:32px 28px 24px;
 text-align:center;box-shadow:0 12px 40px rgba(31,36,48,.12),0 2px 6px rgba(31,36,48,.06)}
.badge{width:64px;height:64px;margin:0 auto 16px;border-radius:50%;display:flex;
 align-items:center;justify-content:center;background:@BADGE@}
h1{font-size:21px;margin:0 0 8px}
p{margin:0 0 22px;color:#5b6372;font-size:15px}
.check{display:flex;align-items:center;gap:14px;width:100%;padding:14px 16px;cursor:pointer;
 border:1.5px solid #d5dbe5;border-radius:12px;background:#fafbfd;font:inherit;color:inherit;
 text-align:left;transition:border-color .2s,background .2s}
.check:hover{border-color:#3b6fd8;background:#f4f7fe}
.box{flex:none;width:26px;height:26px;border:2px solid #9aa4b5;border-radius:7px;
 background:#fff;display:flex;align-items:center;justify-content:center;transition:all .2s}
.spin .box{border-color:#3b6fd8;border-top-color:transparent;border-radius:50%;
 animation:turn .8s linear infinite}
.done .box{background:#1f9d55;border-color:#1f9d55}
.done .box::after{content:"";width:7px;height:13px;border:solid #fff;border-width:0 3px 3px 0;
 transform:translateY(-2px) rotate(45deg)}
@keyframes turn{to{transform:rotate(360deg)}}
.ref{margin-top:20px;font-size:12px;color:#8a93a3;word-break:break-all}
</style></head><body>
<main class="card">
)";

constexpr std::string_view kCaptchaBody =
    R"(<div class="badge"><svg width="32" height="32" viewBox="0 0 24 24" aria-hidden="true">
<path d="M12 2 4 5v6c0 5 3.4 9.4 8 11 4.6-1.6 8-6 8-11V5z" fill="#3b6fd8"/>
<path d="m8.5 12 2.5 2.5 4.5-5" fill="none" stroke="#fff" stroke-width="2" stroke-linecap="round" stroke-linejoin="round"/></svg></div>
<h1>Quick check</h1>
<p>Before we go on, please confirm that you are a person and not an automated program.</p>
<button id="solve" class="check" type="button"><span class="box"></span><span id="label">I am human</span></button>
<div class="ref">Reference @REF@</div>
</main>
<script>
(function () {
  var button = document.getElementById("solve");
  var label = document.getElementById("label");
  var busy = false;
  function solve() {
    if (busy) return;
    busy = true;
    button.className = "check spin";
    label.textContent = "Verifying\u2026";
    setTimeout(function () {
      button.className = "check done";
      label.textContent = "Verified";
      setTimeout(function () { window.location.href = "@CALLBACK@"; }, 300);
    }, 600);
  }
  button.addEventListener("click", solve);
  if (@AUTOSOLVE@) setTimeout(solve, 1000);
})();
</script>
</body></html>
)";

constexpr std::string_view kBlockBody =
    R"(<div class="badge"><svg width="32" height="32" viewBox="0 0 24 24" aria-hidden="true">
<circle cx="12" cy="12" r="10" fill="#d64545"/>
<path d="M7.5 12h9" stroke="#fff" stroke-width="2.5" stroke-linecap="round"/></svg></div>
<h1>Access blocked</h1>
<p>This request looked automated, so it was stopped. If you think this is a mistake, contact the
app's support and quote the reference below.</p>
<div class="ref">Reference @REF@</div>
</main>
</body></html>
)";

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
  for (std::size_t at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

std::string escapeHtml(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out.push_back(c);
    }
  }
  return out;
}

}  // namespace

std::string BlockPage::captchaHtml(std::string_view reference, bool autosolve) {
  std::string html = std::string(kHead) + std::string(kCaptchaBody);
  replaceAll(html, "@TITLE@", "Quick check");
  replaceAll(html, "@BADGE@", "#e8f0fe");
  replaceAll(html, "@CALLBACK@", kCallbackPath);
  replaceAll(html, "@AUTOSOLVE@", autosolve ? "true" : "false");
  replaceAll(html, "@REF@", escapeHtml(reference));
  return html;
}

std::string BlockPage::blockHtml(std::string_view reference) {
  std::string html = std::string(kHead) + std::string(kBlockBody);
  replaceAll(html, "@TITLE@", "Access blocked");
  replaceAll(html, "@BADGE@", "#fdecec");
  replaceAll(html, "@REF@", escapeHtml(reference));
  return html;
}

}  // namespace qs::sandbox
