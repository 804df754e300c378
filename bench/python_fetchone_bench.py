"""Point queries through the Python module against the standard sqlite3 module
on the same file, and the module's throughput on two threads against one.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/python_fetchone_bench.py [DIR]
    cmake --build build/release --target python_fetchone_bench

Prints one line per figure: value, peer, ratio, target.
"""
import os
import random
import shutil
import sqlite3
import sys
import tempfile
import threading
import time

import marsk_quorvi

ROWS = 20000
QUERIES = 10000
ROUNDS = 30
POINT_QUERY = "SELECT id, path, size FROM files WHERE id = ?"


def fill(db):
    db.execute("CREATE TABLE IF NOT EXISTS files (id INTEGER PRIMARY KEY, path TEXT NOT NULL, size INTEGER)")
    db.execute("DELETE FROM files")
    rows = [(i, f"src/module_{i % 97}/file_{i}.cpp", i * 31) for i in range(1, ROWS + 1)]
    with db.transaction() as cursor:
        cursor.executemany("INSERT INTO files (id, path, size) VALUES (?, ?, ?)", rows)


def binding_loop(db, ids, sql=POINT_QUERY):
    fetchone = db.fetchone
    for i in ids:
        fetchone(sql, (i,))


def sqlite3_loop(con, ids, sql=POINT_QUERY):
    execute = con.execute
    for i in ids:
        execute(sql, (i,)).fetchone()


def checksum(rows):
    return sum(row[0] + row[2] + len(row[1]) for row in rows)


def threaded(loop, targets, ids, sql):
    """Seconds for len(targets) threads to run `ids` between them, each its share."""
    share = len(ids) // len(targets)
    barrier = threading.Barrier(len(targets) + 1)

    def run(k):
        barrier.wait()
        loop(targets[k], ids[k * share:(k + 1) * share], sql)

    threads = [threading.Thread(target=run, args=(k,)) for k in range(len(targets))]
    for t in threads:
        t.start()
    barrier.wait()
    start = time.perf_counter()
    for t in threads:
        t.join()
    return time.perf_counter() - start


def per_call(db, con, ids, sql):
    """ns per call through the binding and through sqlite3: the best of many
    short alternating rounds, so that neither side pays for the other's cache
    misses or for another process taking the CPU."""
    binding = plain = float("inf")
    for _ in range(ROUNDS):
        binding = min(binding, threaded(binding_loop, [db], ids, sql))
        plain = min(plain, threaded(sqlite3_loop, [con], ids, sql))
    return binding * 1e9 / len(ids), plain * 1e9 / len(ids)


def throughput(loop, targets, ids, sql):
    """Thousands of calls per second on len(targets) threads and on one."""
    one = many = float("inf")
    for _ in range(ROUNDS):
        one = min(one, threaded(loop, targets[:1], ids, sql))
        many = min(many, threaded(loop, targets, ids, sql))
    return len(ids) / many / 1e3, len(ids) / one / 1e3


def report(figure, value, peer_value, unit, peer, target):
    print(f"{figure:<46} {value:9.1f} {unit:<4} {peer:<36} {peer_value:9.1f}  ratio {value / peer_value:5.2f}  "
          f"target {target}")


def main():
    scratch = sys.argv[1] if len(sys.argv) > 1 else tempfile.mkdtemp(prefix="mq-py-fetchone-bench-")
    path = os.path.join(scratch, "index.db")
    db = marsk_quorvi.Database(path)
    db.connect()
    fill(db)
    con = sqlite3.connect(path, check_same_thread=False)
    rng = random.Random(42)
    ids = [rng.randint(1, ROWS) for _ in range(QUERIES)]
    binding_loop(db, ids)  # warm the page cache and both statement caches
    sqlite3_loop(con, ids)

    # Both answer the same: the rows checked once, outside the timed loops.
    sample = ids[:2000]
    if checksum(db.fetchone(POINT_QUERY, (i,)) for i in sample) != checksum(
            con.execute(POINT_QUERY, (i,)).fetchone() for i in sample):
        print("the binding and sqlite3 answered differently", file=sys.stderr)
        return 1

    # The point query, and a statement that reads no table, which leaves the
    # calls' own costs: the binding's against the sqlite3 module's.
    cons = [con, sqlite3.connect(path, check_same_thread=False)]
    for label, sql, target in [("point query", POINT_QUERY, "<= 0.8"), ("SELECT ? (no table)", "SELECT ?", "-")]:
        report(f"fetchone {label}, per call", *per_call(db, con, ids, sql), "ns", "sqlite3 con.execute(...).fetchone()",
               target)
    for label, sql, target in [("point query", POINT_QUERY, ">= 1.6"), ("SELECT ?", "SELECT ?", "-")]:
        report(f"fetchone {label}, 2 threads", *throughput(binding_loop, [db, db], ids, sql), "k/s", "1 thread",
               target)
        report(f"sqlite3 {label}, 2 threads, 2 connections", *throughput(sqlite3_loop, cons, ids, sql), "k/s",
               "1 thread", "-")

    for c in cons:
        c.close()
    db.close()
    if len(sys.argv) <= 1:
        shutil.rmtree(scratch, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
