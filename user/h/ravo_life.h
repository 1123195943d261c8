// SPDX-License-Identifier: Apache-2.0
// The relay's data from start-up to end: what creates the databases, empties them and frees them.
#ifndef RAVO_LIFE_H
#define RAVO_LIFE_H

// Resets the settings and creates the interface tree and the transaction tree. Returns 0. Called once at start-up; a
// second call starts from empty trees again.
int ravo_db_init();

// Frees every record, every transaction and both trees.
void ravo_db_exit();

// Brings the relay back to its state after start-up: default settings, no interface record, no socket. Returns 0.
int RAVO_IF_Reset();

#endif
