// Makes safe what the process inherits from its parent: open files and environment. Called before
// anything is opened or run.
#pragma once

// Opens "/dev/null" as each of the three standard streams that is closed. Otherwise a table file
// would get the number of standard error, and the messages of the run would be written into it.
void openStandardStreams();

// When the real and the effective user differ, the environment comes from another user: sets PATH
// to the system's directories and drops IFS and every LD_ variable, which steer the shell and the
// loader of each command that the run starts.
void sanitizeEnvironment();
