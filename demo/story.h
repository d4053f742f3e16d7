// The demonstration: a table of scenes, each of which ends programs in one way and tells whether
// they came back.
#ifndef TOV_DEMO_STORY_H
#define TOV_DEMO_STORY_H

#include "demo/stage.h"

namespace tov_demo {

// Starts the daemon and the three example programs.
void open_scene(Stage &stage);

// Plays all scenes (about 20 s). Returns whether everything went as it should.
bool play(Stage &stage);

}  // namespace tov_demo

#endif  // TOV_DEMO_STORY_H
