#include "support/JsonCheck.h"

#include <fstream>

#include "support/Support.h"

namespace TolanTest {

JsonCheck checkJsonDocuments(const std::vector<std::string>& documents) {
  ScratchDir dir;
  std::vector<std::string> args{TOLAN_TEST_SOURCE_DIR "/support/check_json.py",
                                TOLAN_PROJECT_SOURCE_DIR "/schema/TaskSchedulerSnapshot.schema.json"};
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

std::string writtenToPipe(const std::function<void(int)>& write) {
  int p[2];
  if (::pipe(p) != 0) return "pipe failed";
  write(p[1]);
  ::close(p[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = ::read(p[0], buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(n));
  ::close(p[0]);
  return text;
}

}  // namespace TolanTest
