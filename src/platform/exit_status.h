// The exit statuses of dbsweep; it never uses another.
#pragma once

enum ExitStatus {
  exitNormal = 0,   // normal runs, and most fatal conditions, which the platform's scripts ignore
  exitRefused = 1,  // not the super-user, something that the run needs cannot be had, or not all
                    // went well
  exitUsage = 255,  // after the usage text, or no directory for the database
};
