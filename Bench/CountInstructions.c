/*
 * A plugin of qemu's: counts the instructions of a range of addresses, and says at the end how many there were.
 * Usage: qemu-arm -plugin libcount_instructions.so,first=ADDRESS,end=ADDRESS -d plugin PROGRAM
 * Debian has no header for plugins, so what is used of it is declared here.
 */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef uint64_t qemu_plugin_id_t;
struct qemu_plugin_tb;
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id,
                                           void (*callback)(qemu_plugin_id_t id, struct qemu_plugin_tb* block));
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb* block, int operation, void* counter,
                                              uint64_t amount);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, void (*callback)(qemu_plugin_id_t id, void* data), void* data);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* block);
uint64_t qemu_plugin_tb_vaddr(const struct qemu_plugin_tb* block);
void qemu_plugin_outs(const char* text);

__attribute__((visibility("default"))) int qemu_plugin_version = 1;

enum { add_to_counter = 0 };

static uint64_t first, end, count;

static void block_translated(qemu_plugin_id_t id, struct qemu_plugin_tb* block) {
    const uint64_t address = qemu_plugin_tb_vaddr(block);
    (void)id;
    if (address >= first && address < end) {
        qemu_plugin_register_vcpu_tb_exec_inline(block, add_to_counter, &count, qemu_plugin_tb_n_insns(block));
    }
}

static void program_ended(qemu_plugin_id_t id, void* data) {
    char text[32];
    (void)id;
    (void)data;
    snprintf(text, sizeof text, "%llu\n", (unsigned long long)count);
    qemu_plugin_outs(text);
}

__attribute__((visibility("default"))) int qemu_plugin_install(qemu_plugin_id_t id, const void* info, int argc,
                                                               char** argv) {
    (void)info;
    for (int k = 0; k < argc; ++k) {
        if (strncmp(argv[k], "first=", 6) == 0) {
            first = strtoull(argv[k] + 6, NULL, 16);
        } else if (strncmp(argv[k], "end=", 4) == 0) {
            end = strtoull(argv[k] + 4, NULL, 16);
        }
    }
    qemu_plugin_register_vcpu_tb_trans_cb(id, block_translated);
    qemu_plugin_register_atexit_cb(id, program_ended, NULL);
    return 0;
}
