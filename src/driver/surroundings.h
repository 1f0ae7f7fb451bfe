// What the program takes over from whoever started it, made safe before anything else happens.
#pragma once

// Opens "/dev/null" as each of the three standard streams that is closed. Otherwise a table file
// would get the number of standard error, and the messages of the run would be written into it.
void openStandardStreams();

// When the real and the effective user differ, the environment is another user's: the path is set
// to the system's directories, and what steers the shell's words and the loader is dropped, before
// any shell command runs.
void distrustEnvironment();
