// store_kill: the kill figures of kl::Store. A child writing to a store is killed with
// SIGKILL at random moments; after each kill the store is opened and what the kill left is
// classified (kl/testing/store_kill.h). Too slow for the unit tests; run it with
// `make kill-test` or directly:
//
//   store_kill [KILLS]     KILLS rounds of each kind (default 300)
//
// Prints one line per kind; exits 1 when a kill wiped the store, left another id's value
// under the interrupted id, damaged an id that was not being written, or left a rewritten
// store neither old nor new.
#include <stdlib.h>

#include <cstdio>
#include <string>

#include "kl/testing/store_kill.h"

int main(int argc, char** argv) {
  const int kills = argc > 1 ? atoi(argv[1]) : 300;
  if (kills <= 0) {
    fputs("usage: store_kill [KILLS]\n", stderr);
    return 2;
  }
  char pattern[] = "/tmp/kl-kill-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return 2;
  const std::string dir = pattern;

  bool bad = false;
  for (const kl::testing::WriterShape& shape :
       {kl::testing::kSmallWriter, kl::testing::kVariedWriter}) {
    const kl::testing::WriteKillFigures w =
        kl::testing::killWrites(dir + "/writes", kills, 7, shape);
    printf(
        "writes (%u ids, %u-%u B): %d kills, %d wipes; interrupted id: %d old value, %d new "
        "value, %d nothing, %d another id's value, %d an earlier value of its own, %d "
        "unreadable; %d other ids damaged\n",
        shape.ids, shape.minSize, shape.maxSize, w.kills, w.wipes, w.oldValue, w.newValue,
        w.nothing, w.otherIds, w.earlierValue, w.unreadable, w.othersDamaged);
    bad = bad || w.wipes != 0 || w.otherIds != 0 || w.earlierValue != 0 || w.unreadable != 0 ||
          w.othersDamaged != 0;
  }
  for (const bool bigEndian : {false, true}) {
    const kl::testing::RewriteKillFigures r =
        kl::testing::killRewrite(dir + "/rewrite", kills, 40, bigEndian, 11);
    printf("%s: %d kills (%d after the child had finished): %d intact, %d wiped, %d damaged\n",
           bigEndian ? "conversion" : "compaction", r.rounds, r.finished, r.intact, r.wiped,
           r.damaged);
    bad = bad || r.wiped != 0 || r.damaged != 0;
  }
  const std::string command = "rm -rf '" + dir + "'";
  if (system(command.c_str()) != 0) return 2;
  return bad ? 1 : 0;
}
