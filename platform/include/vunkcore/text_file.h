#ifndef VUNKCORE_TEXT_FILE_H
#define VUNKCORE_TEXT_FILE_H

/**
 * @file
 * The text that pair files and section files are made of, and how such files are read and written.
 *
 * Lines end with a newline; the last one may lack it. Blanks (space, tab, vertical tab, form feed, carriage return) at
 * both ends of a line do not count, nor does a byte order mark at the start of the file. A line is one of
 *
 *  - empty, or a comment: its first character is '#' or ';';
 *  - a section header, in section files only: "[name]". The name is what stands between the first '[' and the last
 *    ']', without blanks at its ends; it is not empty, and upper and lower case differ;
 *  - a pair: a key, '=', a value. The key ends at the first '='. Blanks around key and value do not count. A value
 *    that begins and ends with a double quote (and is at least two characters long) is what stands between the two,
 *    blanks and further quotes included; there are no escapes. Nothing after a value is a comment. An empty value is a
 *    value.
 *
 * Anything else, a NUL byte included, makes the whole file unreadable: VUNKC_ERR_SYNTAX, whose file and line on the
 * error stack name this very line. A key that occurs twice has the last value, in the place of the first.
 *
 * Values are written between double quotes, so every value without a newline is read back as written. A key cannot be
 * empty, hold '=' or a newline, begin or end with a blank, or begin with '#', ';' or '['; a section name cannot be
 * empty, hold a newline, or begin or end with a blank. What cannot be held is refused with VUNKC_ERR_NOT_STORABLE and
 * the file stays as it was.
 *
 * A file is written as a whole: beside the old one under the name ".<name>.new", synced to disk, given owner and mode
 * of the old one, and renamed over it. Whoever reads without a lock, and whoever reads after a power cut or a kill at
 * any point, finds the old text or the new. A ".<name>.new" that a killed writer left is removed by the next one; that
 * of a living writer is waited for; anything else of that name (a link, a file of another user) makes writing fail. A
 * symbolic link at the path itself is replaced by a file, never written through; a directory or a device is not
 * replaced. A missing file comes into being with mode 0644 less the process's umask where the function says that it may
 * be missing.
 *
 * Two writers that do not hold a common lock do no harm to the file, but one of two changes can be lost.
 * Files are read and written up to 256 MiB; a larger one is VUNKC_ERR_FILE_READ or VUNKC_ERR_FILE_WRITE.
 */

#include <vunkcore/types.h>

#endif
