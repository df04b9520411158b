#include "tools/tovelctl/image_verdict.h"

#include "dsplink/coff_result_text.h"
#include "platform/text.h"
#include "tools/cofinfo/reader_verdict.h"

namespace tovelctl {

ImageVerdict readImageVerdict(const std::string& file) {
    const cofinfo::ReaderVerdict read = cofinfo::runReader(file);
    ImageVerdict verdict;
    verdict.result = read.result;
    verdict.sections = read.sectionCount;
    verdict.reason = host::narrow(coffResultText(read.result));
    if (!read.messages.empty()) verdict.message = host::narrow(read.messages.front());
    return verdict;
}

Report ImageVerdict::report(const std::string& file) const {
    Report out("cof-verdict");
    out.add("file", file).add("reader", std::int64_t{result});
    if (accepted())
        return out.add("verdict", std::string("boots")).add("sections", std::int64_t{sections});
    out.add("verdict", std::string("will not boot")).add("reason", reason);
    if (!message.empty()) out.add("readerSays", message);
    return out;
}

}  // namespace tovelctl
