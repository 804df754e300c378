"""The Python module on real index files: values and parameters as sqlite3 maps
them, rows, errors under sqlite3's classes, transactions, the read pool beside
a held write, swaps, compaction on an event loop, and log records."""
import asyncio
import errno
import logging
import sqlite3
import threading
import types

import pytest

import marsk_quorvi as mq

LOOP_REASON = "called on the event loop: a pool thread compacts"


@pytest.fixture
def db(tmp_path):
    handle = mq.Database(tmp_path / "repo" / "index.db")
    handle.connect()
    handle.create_schema()
    handle.migrate_schema()
    handle.execute("CREATE TABLE t (id INTEGER PRIMARY KEY, v)")
    yield handle
    handle.close()


def values(db, sql, parameters=()):
    return [tuple(row) for row in db.fetchall(sql, parameters)]


@pytest.mark.parametrize("value", [0, -2**63, 2**63 - 1, 1.5, "", "naïve ☃\x00end", b"\x00\xff", None])
def test_values_round_trip_with_their_types(db, value):
    db.execute("INSERT INTO t (v) VALUES (?)", (value,))
    (stored,) = db.fetchone("SELECT v FROM t")
    assert stored == value and type(stored) is type(value)


@pytest.mark.parametrize("sql, parameters, expected", [
    ("SELECT ?, ?", (1, "a"), (1, "a")),
    ("SELECT ?, ?", [1, "a"], (1, "a")),
    ("SELECT :x, :y", {"y": "a", "x": 1, "unused": 0}, (1, "a")),
    ("SELECT @x, $y", types.MappingProxyType({"x": 1, "y": "a"}), (1, "a")),
    ("SELECT ?, ?", (True, memoryview(b"a")), (1, b"a")),
])
def test_parameters_by_position_and_by_name(db, sql, parameters, expected):
    assert [tuple(db.fetchone(sql, parameters))] == values(db, sql, parameters) == [expected]


@pytest.mark.parametrize("sql, parameters, error, message", [
    ("SELEC 1", (), sqlite3.OperationalError, 'near "SELEC": syntax error'),
    ("SELECT * FROM missing", (), mq.OperationalError, "no such table: missing"),
    ("SELECT ?", (), mq.Error, "Incorrect number of bindings supplied. The current statement uses 1, and there are 0 "
                               "supplied."),
    ("SELECT :x", {"y": 1}, mq.Error, "You did not supply a value for binding parameter :x."),
    ("SELECT ?", {"x": 1}, mq.Error, "Binding 1 has no name, but you supplied a dictionary (which has only names)."),
    ("SELECT ?", ([],), TypeError, "Error binding parameter 1: type 'list' is not supported"),
    ("SELECT ?", (2**63,), OverflowError, "Python int too large to convert to SQLite INTEGER"),
    ("SELECT ?", "a", TypeError, "parameters are of unsupported type: str"),
    ("INSERT INTO t (id) VALUES (1), (1)", (), mq.Error, "UNIQUE constraint failed: t.id"),
])
@pytest.mark.parametrize("call", ["fetchone", "fetchall", "execute"])
def test_failures_carry_the_layer_message(db, call, sql, parameters, error, message):
    with pytest.raises(error) as raised:
        getattr(db, call)(sql, parameters)
    assert str(raised.value) == message
    if isinstance(raised.value, sqlite3.Error):
        assert isinstance(raised.value, mq.Error) and raised.value.sqlite_errorcode > 0


def test_error_classes_sit_under_sqlite3s():
    assert mq.OperationalError.__mro__[1:5] == (sqlite3.OperationalError, sqlite3.DatabaseError, mq.Error,
                                                sqlite3.Error)
    assert all(issubclass(cls, mq.Error) for cls in (mq.NotAnIndexError, mq.SchemaMigrationError,
                                                     mq.ReaderUnavailable))


def test_rows_and_cursors(db):
    assert db.executemany("INSERT INTO t (id, v) VALUES (:id, :v)", [{"id": 1, "v": "a"}, {"id": 2, "v": "b"}]
                          ).rowcount == 2
    row = db.fetchone("SELECT id AS Id, v FROM t WHERE id = ?", (1,))
    assert (row[0], row["id"], row["ID"], row[-1], row[0:], len(row), list(row), row.keys()) == (
        1, 1, 1, "a", (1, "a"), 2, [1, "a"], ["Id", "v"])
    assert row == db.fetchall("SELECT id AS Id, v FROM t")[0] != db.fetchone("SELECT id, v FROM t")
    assert hash(row) == hash(db.fetchone("SELECT 1 AS Id, 'a' AS v")) and repr(row) == "Row(Id=1, v='a')"
    for key in ("nope", 2, -3):
        with pytest.raises(IndexError):
            row[key]
    cursor = db.execute("SELECT id, v FROM t ORDER BY id")
    assert [tuple(r) for r in cursor] == [(1, "a"), (2, "b")] and cursor.fetchone() is None
    assert db.execute("UPDATE t SET v = 'c'").rowcount == 2 and cursor.rowcount == -1
    assert cursor.lastrowid is None and db.execute("INSERT INTO t (id, v) VALUES (7, 'd')").lastrowid == 7
    assert cursor.description == (("id",) + (None,) * 6, ("v",) + (None,) * 6)
    assert db.execute("DELETE FROM t WHERE id = 7").description is None
    assert db.fetchone("SELECT 1 WHERE 0") is None
    cursor.close()
    with pytest.raises(mq.Error, match=r"^Cannot operate on a closed cursor\.$"):
        cursor.fetchall()


def test_lifecycle_and_read_only_handles(tmp_path):
    path = tmp_path / "index.db"
    handle = mq.Database(str(path))
    with pytest.raises(RuntimeError, match=r"^Database not connected\. Call connect\(\) first\.$"):
        handle.connection()
    handle.connect()
    handle.create_schema()
    handle.record_error("a.py", mq.PARTIAL_PARSE_ERROR, "bad", 3)
    handle.record_error("a.py", mq.FQN_COLLISION_ERROR)
    handle.record_error("b.py", mq.FQN_COLLISION_ERROR)
    handle.clear_file_errors("b.py", mq.PARTIAL_PARSE_ERROR)
    assert (handle.get_error_count(), handle.check_integrity(), handle.db_path) == (2, True, path)
    handle.clear_file_errors("b.py")
    assert handle.connection().execute("SELECT count(*) FROM index_errors").fetchone()[0] == 2
    handle.close()
    assert handle.closed
    with pytest.raises(RuntimeError, match=r"^Database is closed\.$"):
        handle.execute("SELECT 1")

    reader = mq.Database(path, read_only=True)
    reader.connect()
    assert reader.get_stats() == {"files": 0, "symbols": 0, "edges": 0, "components": 0, "errors": 2}
    with pytest.raises(RuntimeError, match="^the index is open read-only$"):
        reader.clear_all()
    reader.close()
    (tmp_path / "empty.db").touch()
    with pytest.raises(mq.NotAnIndexError, match=f"^not an index: '{tmp_path}/empty.db' is empty$"):
        mq.Database(tmp_path / "empty.db", read_only=True).connect()
    with pytest.raises(FileNotFoundError) as raised:
        mq.Database(tmp_path / "none.db", read_only=True).connect()
    assert (raised.value.errno, raised.value.filename) == (errno.ENOENT, str(tmp_path / "none.db"))


def test_nested_transactions_commit_once_and_roll_back_whole(db):
    with db.transaction() as outer:
        outer.execute("INSERT INTO t (v) VALUES ('a')")
        with db.transaction() as inner:
            inner.execute("INSERT INTO t (v) VALUES ('b')")
        assert db.fetchone("SELECT count(*) FROM t")[0] == 2  # its own writes, on the writer connection
    boom = ValueError("boom")
    with pytest.raises(ValueError) as raised:
        with db.transaction() as outer:
            outer.execute("DELETE FROM t")
            with db.transaction() as inner:
                inner.execute("INSERT INTO t (v) VALUES ('c')")
                raise boom
    assert raised.value is boom and values(db, "SELECT v FROM t ORDER BY v") == [("a",), ("b",)]
    with pytest.raises(mq.Error, match="closed cursor"):
        outer.execute("SELECT 1")
    scope = db.transaction()
    with scope:
        pass
    with pytest.raises(ValueError, match="entered once"):
        scope.__enter__()
    # Every scope let the lock go: another thread writes at once.
    writer = threading.Thread(target=db.execute, args=("INSERT INTO t (v) VALUES ('d')",))
    writer.start()
    writer.join()
    assert db.fetchone("SELECT count(*) FROM t")[0] == 3


def test_the_pool_answers_while_another_thread_holds_a_write_transaction(db):
    db.execute("INSERT INTO t (v) VALUES ('committed')")
    inside, release = threading.Event(), threading.Event()

    def hold_scope():
        with db.transaction() as cursor:
            cursor.execute("INSERT INTO t (v) VALUES ('pending')")
            inside.set()
            release.wait()

    holder = threading.Thread(target=hold_scope)
    # Waits for the lock with the GIL released, or this thread could not go on.
    queued = threading.Thread(target=lambda: inside.wait(60) and db.execute("INSERT INTO t (v) VALUES ('queued')"))
    watchdog = threading.Timer(60, release.set)  # a query sent to the writer would wait for the scope forever
    for thread in (holder, queued, watchdog):
        thread.start()
    try:
        assert inside.wait(60)
        seen = values(db, "SELECT v FROM t")
        alone = not release.is_set()
    finally:
        release.set()
        watchdog.cancel()
        holder.join()
        queued.join()
    assert (seen, alone) == ([("committed",)], True)
    assert values(db, "SELECT v FROM t ORDER BY id") == [("committed",), ("pending",), ("queued",)]


def test_swap_from_a_staging_file(db, tmp_path, caplog):
    staging = mq.Database(tmp_path / "staging" / "index.db")
    staging.connect()
    staging.create_schema()
    staging.execute("INSERT INTO files (id, path, language) VALUES (1, 'a.py', 'python')")
    staging.execute("INSERT INTO symbols (file_id, name, fqn, kind) VALUES (1, 'f', 'a.f', 'function')")
    staging.close()
    caplog.set_level(logging.INFO, logger=mq.LOGGER_NAME)
    counts = db.swap_index_from(staging.db_path)
    assert list(counts.items()) == [("components", 0), ("files", 1), ("symbols", 1), ("edges", 0),
                                    ("external_imports", 0), ("index_errors", 0), ("code_chunks", 0)]
    assert db.index_generation() == 1 and values(db, "SELECT path FROM files") == [("a.py",)]
    assert [(r.name, r.levelno, r.getMessage()) for r in caplog.records] == [
        (mq.LOGGER_NAME, logging.INFO, f"swap_index_from: replaced live index from {staging.db_path} "
                                       "(rows inserted: {" + ", ".join(f"'{k}': {v}" for k, v in counts.items()) + "})")]

    missing = tmp_path / "missing.db"
    with pytest.raises(FileNotFoundError) as raised:
        db.swap_index_from(missing)
    assert (raised.value.errno, raised.value.filename, str(raised.value)) == (
        errno.ENOENT, str(missing), f"[Errno 2] Staging database not found: '{missing}'")
    assert db.index_generation() == 1
    with pytest.raises(OSError) as raised:  # no system call failed: no errno
        mq.Database(tmp_path, read_only=True).connect()
    assert (raised.value.errno, raised.value.filename, str(raised.value)) == (
        None, None, f"not a regular file: '{tmp_path}'")


def test_compaction_declines_on_the_event_loop(db, caplog):
    caplog.set_level(logging.DEBUG, logger=mq.LOGGER_NAME)

    async def on_the_loop():
        return db.compact(), db.compact(), await asyncio.to_thread(db.compact)

    first, again, pool_thread = asyncio.run(on_the_loop())
    assert first == again == mq.Compaction(converted=False, pages_released=0, skipped=LOOP_REASON)
    assert pool_thread == (False, 0, None) and db.compact().skipped is None
    with pytest.raises(AttributeError):
        first.skipped = None
    line = f"Compaction of {db.db_path} skipped: {LOOP_REASON}"
    # The first refusal of a kind is told at INFO, repeats at DEBUG.
    assert [(r.name, r.levelno, r.getMessage()) for r in caplog.records] == [
        (mq.LOGGER_NAME, logging.INFO, line), (mq.LOGGER_NAME, logging.DEBUG, line)]


def test_extractor_stamp_and_its_warning(db, caplog):
    db.execute("INSERT INTO files (path, language) VALUES ('a.py', 'python'), ('b.cpp', 'cpp')")
    db.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)", (mq.EXTRACTOR_VERSIONS_KEY, "v1"))
    assert db.refresh_extractor_stamp(types.MappingProxyType({"python": 2})) == 1
    assert db.refresh_extractor_stamp({"python": 2}) == 0
    assert [(r.levelno, r.getMessage()) for r in caplog.records] == [
        (logging.WARNING, "Extractor stamp 'v1' has an unknown format; treating it as absent")]
