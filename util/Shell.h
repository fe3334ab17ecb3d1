#pragma once

#include <string>

/// `text` as at most one shell word: as it stands if it is empty or no character means anything to a shell, else
/// quoted. A NUL ends the text, as it would end the command. Commands are made of literals and such words, except the
/// line that a tool asks to have executed.
std::string ul_ShellWord(const std::string& text);

/// Runs `command` with system(), waits for its end and returns what system() does: -1 with errno, or the exit status as
/// waitpid() gives it. The command gets SIGPIPE at its default even where this process ignores it, and /dev/null for a
/// standard output or error that has no room now. One longer than 1023 bytes is not run: -1, E2BIG.
int ul_RunCommand(const std::string& command);

/// The same for a command of route(8), which may have to look up a host name: in its environment alone, RES_OPTIONS and
/// LOCALDOMAIN (resolv.conf(5)), where unset, make it wait 1 s for a name server and ask once, if its C library is
/// glibc. A terminal's interrupt reaches this process too while it waits.
int ul_RunRoute(const std::string& command);

/// Runs `command` as ul_RunCommand() does and puts what it wrote to its standard output into `output`. False, `output`
/// untouched, errno telling why, if it could not be started, is too long or finds no descriptor below 1024 free
/// (EMFILE); its exit status does not matter. Where memory runs out it throws std::bad_alloc and loses descriptors.
bool ul_ReadCommand(const std::string& command, std::string& output);
