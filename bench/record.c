#define SD_JOURNAL_SUPPRESS_LOCATION
#include "record.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

static void fail(const char* what) {
    perror(what);
    exit(1);
}

static void read_value(const char* path) {
    char value[4096];
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0 || read(file, value, sizeof value) < 0)
        fail(path);
    close(file);
}

static void send_message(FILE* record, int priority, const char* line, const char* function, size_t size) {
    char code_line[32];
    snprintf(code_line, sizeof code_line, "CODE_LINE=%s", line);
    char* const text = malloc(size + 1);
    if (text == NULL || fread(text, 1, size, record) != size)
        fail("message");
    text[size] = '\0';
    sd_journal_print_with_location(priority, "CODE_FILE=bench/record.c", code_line, function, "%s", text);
    free(text);
}

void replay(const char* path) {
    FILE* const record = path == NULL ? NULL : fopen(path, "re");
    if (record == NULL)
        fail("record");
    char header[4096];
    while (fgets(header, sizeof header, record) != NULL) {
        header[strcspn(header, "\n")] = '\0';
        char function[64];
        char line[16];
        int priority = 0;
        size_t size = 0;
        if (strncmp(header, "file ", 5) == 0)
            read_value(header + 5);
        else if (sscanf(header, "message %d %15s %63s %zu", &priority, line, function, &size) == 4)
            send_message(record, priority, line, function, size);
    }
    fclose(record);
}
