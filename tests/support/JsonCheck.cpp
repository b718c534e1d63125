#include "support/JsonCheck.h"

#include <fstream>

#include "support/Support.h"

namespace TolanTest {

namespace {

// Exit 3: the checker itself is missing. Exit 1: a document is not valid.
const char* const kChecker = R"(
import json, sys
try:
    import jsonschema
except ImportError as e:
    print("python3-jsonschema is missing:", e); sys.exit(3)
def no_duplicates(pairs):
    keys = [k for k, _ in pairs]
    dups = {k for k in keys if keys.count(k) > 1}
    if dups: raise ValueError("duplicate keys %s" % sorted(dups))
    return dict(pairs)
schema = json.load(open(sys.argv[1]))
validator = jsonschema.Draft202012Validator(schema)
for path in sys.argv[2:]:
    try:
        doc = json.load(open(path), object_pairs_hook=no_duplicates)
        validator.validate(doc)
    except Exception as e:
        print(path, ":", str(e)[:2000]); sys.exit(1)
)";

}  // namespace

JsonCheck checkJsonDocuments(const std::vector<std::string>& documents) {
  ScratchDir dir;
  std::vector<std::string> args{"-c", kChecker, TOLAN_PROJECT_SOURCE_DIR "/schema/TaskSchedulerSnapshot.schema.json"};
  for (size_t i = 0; i < documents.size(); ++i) {
    args.push_back(dir.path + "/doc" + std::to_string(i) + ".json");
    std::ofstream(args.back()) << documents[i];
  }
  const ChildResult r = runChild("python3", args);
  JsonCheck check;
  check.skipped = r.exitedWith(127) || r.exitedWith(3);
  check.ok = r.exitedWith(0);
  check.message = (check.skipped ? "JSON checker unavailable (python3, python3-jsonschema): " : "JSON checker: ") +
                  r.describe() + "\n" + r.out;
  return check;
}

}  // namespace TolanTest
