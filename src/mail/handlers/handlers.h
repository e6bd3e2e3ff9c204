// The on-disk store of mail handlers.
//
// A handler is an executable the mail system runs on a message at a hook
// point, for all mail ("global") or for one sender, recipient or domain.
// Each handler has an information directory info/NAME under the handler
// root holding one file per parameter ("hook", "context", "handler-type",
// the type's own parameter, the "executable" link). NAME is
// PRIORITY-TEMPLATE-RANDOM. Per hook, queue directories HOOK/global or
// HOOK/TYPE/VALUE hold an empty file NAME while the handler is active there;
// the program that runs the handlers orders a queue by handlers_compare.
//
// Procedural style: 0 on success, -1 on failure after one report through
// zarnet_log at level 3; functions returning a string return a malloc'ed one
// (the caller frees it) or null after a report. A store that has no
// information directory yet holds no handlers: lookups find nothing and
// mass operations have nothing to do, without a report.
//
// Every public call that changes the store runs the refresh program of the
// in-memory mirror once when it is done (not at all for a query), however
// many handlers it touched.
#ifndef MAILTEND_MAIL_HANDLERS_HANDLERS_H
#define MAILTEND_MAIL_HANDLERS_HANDLERS_H

#include <cstddef>

// Type codes, the index of the type's name.
enum {
    HANDLER_TYPE_SENDER = 0,
    HANDLER_TYPE_RECIPIENT = 1,
    HANDLER_TYPE_SENDER_DOMAIN = 2,
    HANDLER_TYPE_RECIPIENT_DOMAIN = 3,
    HANDLER_TYPE_GLOBAL = 4,
    HANDLER_TYPE_UNKNOWN = 65535,
};

// Actions of control_handler_queue and the mass operations.
enum {
    HANDLER_ACTION_REMOVE = 1,
    HANDLER_ACTION_ENABLE = 2,
    HANDLER_ACTION_DISABLE = 3,
    HANDLER_ACTION_QUERY = 4,
    HANDLER_ACTION_CLONE = 5,
    HANDLER_ACTION_REASSIGN = 6,
};

// Case-insensitive; null or unknown names give HANDLER_TYPE_UNKNOWN.
int get_handler_type(const char *type_name);
// The canonical (lower-case) name of a type code; null for other codes.
const char *handler_type_name(int type);

char *get_priority_from_name(const char *name);
char *get_template_from_name(const char *name);

// The first line of the parameter file, without its line feed.
char *get_handler_parameter(const char *name, const char *parameter);

// The handler whose template is tmpl (exactly) with this hook and type and,
// unless the type is global, this value (compared case-insensitively);
// null when there is none (reported only when the store could not be read).
char *get_handler_name(const char *tmpl, const char *type_name, const char *value,
                       const char *hook);

// Creates dir/file (0644) holding value as one line.
int string_to_file(const char *dir, const char *file, const char *value);

// Creates a handler and applies action to it (callers pass enable). The
// executable must exist; value is ignored for a global handler. A failure
// leaves no trace of the new handler behind.
int mail_handler_add(const char *tmpl, const char *type_name, const char *value,
                     const char *executable, const char *context, const char *hook,
                     const char *priority, int action);
// Disables the handler and removes its information directory.
int mail_handler_remove(const char *name);
// Applies an action to one handler; new_value is the value of the copy made
// by clone and re-assign. For a query the result is 1 (active) or 0.
int control_handler_queue(const char *name, int action, const char *new_value);

// Runs the refresh program when it is installed as an owner-executable
// regular file; 0 when it is absent or succeeded.
int tmpfs_handlers_refresh();

// Ordering of a queue: priorities as integers, then templates, then random
// parts by the locale's collation. Names that cannot be split compare equal
// (after a report).
int handlers_compare(const char *a, const char *b);
void handlers_sort(char **names, std::size_t count);

// The store's lock (mk_lock on the handler root's name, so every tool that
// edits the store meets on it), held from construction to destruction.
// Within a process the locks nest: only the outermost takes it. Every
// public call that changes the store holds it; a caller whose change
// depends on a lookup (is there such a handler yet?) holds one across both.
// held() is false, after a report, when the lock could not be taken.
class HandlerStoreLock {
public:
    HandlerStoreLock();
    ~HandlerStoreLock();
    HandlerStoreLock(const HandlerStoreLock &) = delete;
    HandlerStoreLock &operator=(const HandlerStoreLock &) = delete;
    bool held() const { return held_; }

private:
    bool held_ = false;
};

// The handler root every reader of the store shares.
const char *handlers_root();

// Test hooks: another handler root and refresh program (null restores the
// installed ones). Production code never calls them.
void handlers_set_paths_for_testing(const char *root, const char *refresh_program);

#endif
