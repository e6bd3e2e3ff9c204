/* The floor of a mailtend command: the steps it cannot avoid, done as cheaply as possible in
 * one process. Each argument is one step, its fields separated by \037 (unit separator):
 *
 *   x DATA PROG ARG...   run PROG with ARGs (DATA on its stdin when not empty), wait; must exit 0
 *   y DATA PROG ARG...   the same, exit 1 allowed too (postmap -d of keys not there)
 *   w PATH TEXT MODE UID write PATH safely: temporary, fchown/fchmod, fsync, rename, fsync dir
 *   f PATH TEXT          create or truncate PATH and write TEXT (no fsync)
 *   l TARGET PATH        symlink
 *   m PATH MODE UID      mkdir (it may exist), then chown and chmod
 *   r PATH               remove the tree at PATH
 *   n FROM TO            rename
 *   h PIDFILE            SIGHUP to the pid the file records
 *   t PATH               backdate PATH's times by 3 s (Postfix waits while main.cf is younger)
 *   s DB SQL             passwd.db: open, BEGIN IMMEDIATE, SQL, COMMIT, close (WITH_SQLITE)
 *   q SQL...             the panel database: connect, each query and its result, close (WITH_MYSQL)
 *
 * Exit 0 when every step worked, else 1 after a message naming the step. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#ifdef WITH_SQLITE
#include <sqlite3.h>
#endif
#ifdef WITH_MYSQL
#include <mysql.h>
#endif

extern char **environ;

static int fail(const char *step, const char *what)
{
    fprintf(stderr, "floor: %s: %s\n", step, what);
    return 1;
}

static int run(char **f, int n, int allowed)
{
    int in[2] = {-1, -1};
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    if (*f[1] != '\0') {
        if (pipe2(in, O_CLOEXEC) != 0)
            return fail(f[2], strerror(errno));
        posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    }
    f[n] = NULL;
    pid_t pid;
    int rc = posix_spawn(&pid, f[2], &fa, NULL, f + 2, environ);
    posix_spawn_file_actions_destroy(&fa);
    if (in[0] >= 0) {
        close(in[0]);
        if (rc == 0 && write(in[1], f[1], strlen(f[1])) != (ssize_t)strlen(f[1]))
            rc = errno;
        close(in[1]);
    }
    if (rc != 0)
        return fail(f[2], strerror(rc));
    int status;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) > allowed)
        return fail(f[2], "failed");
    return 0;
}

static int write_safely(char **f)
{
    char tmp[4096];
    snprintf(tmp, sizeof tmp, "%s.floor", f[1]);
    int fd = open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return fail(tmp, strerror(errno));
    size_t len = strlen(f[2]);
    int ok = write(fd, f[2], len) == (ssize_t)len &&
             fchown(fd, atoi(f[4]), atoi(f[4])) == 0 &&
             fchmod(fd, strtol(f[3], NULL, 8)) == 0 && fsync(fd) == 0;
    close(fd);
    if (!ok || rename(tmp, f[1]) != 0)
        return fail(f[1], strerror(errno));
    char *slash = strrchr(f[1], '/');
    *slash = '\0';
    fd = open(f[1], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ok = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0)
        close(fd);
    return ok ? 0 : fail(f[1], strerror(errno));
}

static int remove_one(const char *path, const struct stat *st, int type, struct FTW *ftw)
{
    (void)st, (void)ftw;
    return type == FTW_DP ? rmdir(path) : unlink(path);
}

static int hup(const char *pidfile)
{
    char buf[32] = "";
    FILE *f = fopen(pidfile, "re");
    if (f == NULL || fgets(buf, sizeof buf, f) == NULL) {
        if (f != NULL)
            fclose(f);
        return fail(pidfile, "no pid");
    }
    fclose(f);
    return kill(atoi(buf), SIGHUP) == 0 ? 0 : fail(pidfile, strerror(errno));
}

#ifdef WITH_SQLITE
static int sql_lite(const char *path, const char *sql)
{
    sqlite3 *db = NULL;
    int rc = sqlite3_open_v2(path, &db, SQLITE_OPEN_READWRITE, NULL);
    if (rc == SQLITE_OK) {
        sqlite3_busy_timeout(db, 5000);
        rc = sqlite3_exec(db, "BEGIN IMMEDIATE", NULL, NULL, NULL);
    }
    if (rc == SQLITE_OK)
        rc = sqlite3_exec(db, sql, NULL, NULL, NULL);
    if (rc == SQLITE_OK)
        rc = sqlite3_exec(db, "COMMIT", NULL, NULL, NULL);
    int failed = rc != SQLITE_OK ? fail(sql, sqlite3_errmsg(db)) : 0;
    sqlite3_close(db);
    return failed;
}
#endif

#ifdef WITH_MYSQL
static int sql_panel(char **sql, int n)
{
    char password[100] = "";
    FILE *f = fopen("/etc/zrn/.zrn.shadow", "re");
    if (f == NULL || fgets(password, sizeof password, f) == NULL) {
        if (f != NULL)
            fclose(f);
        return fail("/etc/zrn/.zrn.shadow", "no password");
    }
    fclose(f);
    password[strcspn(password, "\n")] = '\0';
    MYSQL *conn = mysql_init(NULL);
    mysql_options(conn, MYSQL_SET_CHARSET_NAME, "utf8");
    int failed = mysql_real_connect(conn, "localhost", "admin", password, "zrn", 0, NULL, 0) == NULL;
    for (int i = 0; !failed && i < n; ++i)
        if (!(failed = mysql_query(conn, sql[i]) != 0))
            mysql_free_result(mysql_store_result(conn));
    if (failed)
        fail(*sql, mysql_error(conn));
    mysql_close(conn);
    return failed;
}
#endif

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        char *f[64];
        int n = 0;
        for (char *p = argv[i]; n < 63; ++p) {
            f[n++] = p;
            if ((p = strchr(p, '\037')) == NULL)
                break;
            *p = '\0';
        }
        int bad = 1;
        errno = 0;
        switch (*f[0]) {
        case 'x':
        case 'y':
            bad = n < 3 || run(f, n, *f[0] == 'y');
            break;
        case 'w':
            bad = n != 5 || write_safely(f);
            break;
        case 'f': {
            int fd = n != 3 ? -1 : open(f[1], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            bad = fd < 0 || write(fd, f[2], strlen(f[2])) != (ssize_t)strlen(f[2]);
            if (fd >= 0)
                close(fd);
            break;
        }
        case 'l':
            bad = n != 3 || symlink(f[1], f[2]) != 0;
            break;
        case 'm':
            bad = n != 4 || (mkdir(f[1], strtol(f[2], NULL, 8)) != 0 && errno != EEXIST) ||
                  chown(f[1], atoi(f[3]), atoi(f[3])) != 0 || chmod(f[1], strtol(f[2], NULL, 8)) != 0;
            break;
        case 'r':
            bad = n != 2 || nftw(f[1], remove_one, 16, FTW_DEPTH | FTW_PHYS) != 0;
            break;
        case 'n':
            bad = n != 3 || rename(f[1], f[2]) != 0;
            break;
        case 'h':
            bad = n != 2 || hup(f[1]);
            break;
        case 't': {
            struct timespec ts[2];
            clock_gettime(CLOCK_REALTIME, &ts[0]);
            ts[0].tv_sec -= 3;
            ts[1] = ts[0];
            bad = n != 2 || utimensat(AT_FDCWD, f[1], ts, 0) != 0;
            break;
        }
#ifdef WITH_SQLITE
        case 's':
            bad = n != 3 || sql_lite(f[1], f[2]);
            break;
#endif
#ifdef WITH_MYSQL
        case 'q':
            bad = n < 2 || sql_panel(f + 1, n - 1);
            break;
#endif
        }
        if (bad)
            return fail(n > 1 ? f[1] : f[0], errno != 0 ? strerror(errno) : "bad step");
    }
    return 0;
}
