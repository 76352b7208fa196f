#include "cli/command.h"

#include "base/context_name.h"
#include "cli/exchange.h"
#include "quillplatform/sysmgr.h"

namespace quill::cli {
Answer carry_out(const Verb& verb, const Arguments& arguments) {
    if ((verb.traits & kNeedsDaemon) != 0) require_daemon();
    Answer answer = verb.run(arguments);
    const bool only_showed = verb.arguments.size() != 0 && arguments.empty();
    if ((verb.traits & kSetsDevice) != 0 && !only_showed && sysmgrcmn_vdc_id_get() != kDefaultContext)
        answer.notice = "stored; only context 1 applies it to the system";
    return answer;
}

}  // namespace quill::cli
