// -c -o FILE: whether FILE itself can be continued, and the words for it.
// Pure functions of what webget knows before it hands FILE to the library
// (FILE's length, its control record, whether it has holes, the size the
// server announced), kept in this header so that the unit tests can use them
// without the program.
#ifndef WEBGET_CONTINUE_PLAN_H
#define WEBGET_CONTINUE_PLAN_H

#include <string>

namespace webget {

enum class ContinueVerdict {
    kContinue,  // the library continues FILE: by its control record, else at its end
    kComplete,  // FILE is as long as the server's file: nothing to fetch
    kLonger,    // FILE is longer than the server's file: it is not a part of it
    kHoles,     // FILE has holes and no record: which bytes are real cannot be told
};

struct FileFacts {
    long long length = 0;  // FILE's length, above 0
    bool record = false;   // FILE.resume lies beside it
    bool holes = false;    // some range before FILE's end was never written
    long long size = 0;    // the server's file, as the probe announced it
};

inline ContinueVerdict continueVerdict(const FileFacts& facts) {
    // The library would start such a file over in place, emptying it first.
    if (facts.length > facts.size) return ContinueVerdict::kLonger;
    if (facts.record) return ContinueVerdict::kContinue;
    // Without a record a file as long as the server's one cannot be told
    // from a complete one; the usual tools take it as complete.
    if (facts.length == facts.size) return ContinueVerdict::kComplete;
    return facts.holes ? ContinueVerdict::kHoles : ContinueVerdict::kContinue;
}

// What webget says before it acts on the verdict.
inline std::string continueMessage(ContinueVerdict verdict, const std::string& file, const FileFacts& facts) {
    const std::string whole =
        "; fetching the file again whole (" + file + " is replaced once the new copy is complete and verified)";
    switch (verdict) {
    case ContinueVerdict::kComplete:
        return file + " is already complete: it is as long as the file on the server (" +
               std::to_string(facts.size) + " bytes); nothing to fetch";
    case ContinueVerdict::kLonger:
        return file + " cannot be continued: it is " + std::to_string(facts.length) +
               " bytes, longer than the file on the server (" + std::to_string(facts.size) + " bytes)" + whole;
    case ContinueVerdict::kHoles:
        return file + " cannot be continued: it has holes (ranges never written) and no control record, so its "
                      "bytes cannot be trusted" + whole;
    case ContinueVerdict::kContinue:
        if (facts.record) return "continuing " + file + " from its control record";
        return "continuing " + file + " at byte " + std::to_string(facts.length) + " of " +
               std::to_string(facts.size);
    }
    return std::string();
}

}  // namespace webget

#endif
