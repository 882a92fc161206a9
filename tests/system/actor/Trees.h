#pragma once

#include <sstream>

// A tree that all actors of a test make together: "r" of actor 0; its children "b0", "b1", ... of an actor each; the
// 20 nodes of a branch, "b0.00" and so on, of all actors in turn; below a node 20 objects of the node's actor, and
// leaves below those.
//
// tree plan SELF ACTORS LEAVES: which actor this is, of how many; leaves of each of their parents.
//     "tree planned"
// tree root | branch B | nodes B: makes what is this actor's of that, anew if it was there, with what is below it in
// this actor.
//     "tree made COUNT"
// tree walk HOW STATE [ACTOR]: looks at every object of the tree.
//     "tree found COUNT missing COUNT wrong COUNT"
//
// HOW is `names` (every object by its identifier), `child` (each by its name, from its parent) or `childs` (all of a
// parent).
//
// STATE is what must be: `up` - all are found; `down` - just those that ACTOR, which is not there, has nothing to do
// with; `dying` - at least those; `coming` - at least those, and nothing below what was ACTOR's, as others make their
// part of that anew. What is not so makes a line "wrong NAME". While ACTOR is dying or coming a walk says "STATE at
// COUNT of ACTOR" every 100 objects.
void onTree(std::istringstream &arguments);
