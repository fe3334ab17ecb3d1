#pragma once

#include <initializer_list>

/// Rewrites the resolver file /etc/resolf.conf, a line "nameserver " and the text for each name server that is not
/// null. True if at least one was written; false, the file emptied or as it was, if none is given or it cannot be
/// written; a descriptor of 1024 or more counts as EMFILE. A new file is readable for all (0644) whatever the umask, an
/// existing one keeps its mode.
bool ResolverFile_Write(std::initializer_list<const char*> nameservers);
