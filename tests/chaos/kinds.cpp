// The table of kinds; the shares add up to a hundred.
#include "tests/chaos/kinds.h"

#include <vector>

namespace tov_chaos {

const std::vector<Kind> &all_kinds() {
  static const std::vector<Kind> kinds = {
      {"executed", By::LIBRARY, true, false, 0, {"exec"}, 10, {}},
      {"scripted", By::LIBRARY, true, true, 0, {"script"}, 5, {}},
      {"pathed", By::LIBRARY, true, true, 0, {"path=/anywhere/"}, 5, {}},
      {"watched", By::LIBRARY, true, false, 0, {"exec", "watch"}, 7, {}, false},
      // A helper holds the file's lock beyond the program's end, so the restart is put off. (Should
      // the process not end but become another program, it is put off for as long as that lives.)
      {"sponsored", By::LIBRARY, true, false, 0, {"sponsored"}, 6, {}, false},
      {"delayed", By::LIBRARY, true, false, 0, {"exec"}, 8, {}, true, true},
      {"delayedscript", By::LIBRARY, true, true, 0, {"script"}, 3, {}, true, true},
      {"launched", By::LIBRARY, true, false, 0, {"exec"}, 4, {"launch=exec"}},
      {"launchedscript", By::LIBRARY, true, true, 0, {"script"}, 3, {"launch=script"}},
      {"member9_", By::LIBRARY, true, false, 9, {"exec"}, 5, {}},
      {"member11_", By::LIBRARY, true, true, 11, {"script"}, 3, {}},
      {"filed", By::FILE, true, false, 0, {"file=2"}, 7, {}},
      {"filedscript", By::FILE, true, true, 0, {"file=3"}, 5, {}},
      {"expected", By::FILE, false, false, 0, {"file=1"}, 3, {}},
      {"ignored", By::FILE, false, false, 0, {"file=4"}, 3, {}},
      {"listed", By::LIST, true, false, 0, {}, 6, {}, false},
      // The name is the order, see worker.cpp: it forks itself away, and the daemon searches.
      {"background", By::LIST, true, false, 0, {}, 2, {}, false},
      {"listedscript", By::LIST, true, true, 0, {"words"}, 4, {}, false},
      {"backgroundscript", By::LIST, true, true, 0, {}, 2, {}, false},
      // Executed again with words behind its path.
      {"worded", By::LIST, true, false, 0, {"words"}, 2, {}, false},
      {"listed9_", By::LIST, true, false, 9, {"words"}, 2, {}, false},
      {"background11_", By::LIST, true, false, 11, {}, 2, {}, false},
      {"stranger", By::NOBODY, false, false, 0, {}, 3, {}, false},
  };
  return kinds;
}

}  // namespace tov_chaos
