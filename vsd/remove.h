// Recursive removal in directories that are open to everybody.
#ifndef TOV_VSD_REMOVE_H
#define TOV_VSD_REMOVE_H

// Removes a file, or a directory with everything below it. Slashes at the end of the path do not
// matter.
//
// A symbolic link that belongs to the caller's own user stands for what it leads to: a file's link
// is removed itself, a directory's target is emptied (the link and the emptied directory stay, and
// the result is -ENOTDIR), a dangling one stays (-ENOENT). Any other user's link is removed itself
// and never followed, whoever plants or changes it meanwhile. One among the directories on the way
// to `dir`, or on the way of an own link's target, is not followed either: nothing is removed there
// (-ELOOP).
//
// What cannot be removed does not keep the rest: the last failure is remembered and the scan goes
// on. An entry whose whole path would take 256 bytes or more is such a failure (-ENAMETOOLONG), and
// so is one for which no descriptor is left (-EMFILE). In a control group no file can be removed
// (-EPERM is remembered) and yet the group goes with the final rmdir, when no process is in it.
//
// Returns 0 or a negative errno. Any thread; takes one descriptor for each level of depth.
int delete_dir(char *dir);

#endif  // TOV_VSD_REMOVE_H
