"""The storage layer of one repository's index file.

A process makes one Database per index file and shares it among its threads.
Writes go through one writer connection under a reentrant lock; queries run
on a pool of read-only WAL connections and never wait for a write. Every call
that may block releases the GIL.
"""
import os
import pathlib
import sqlite3
import types
from typing import Any, Iterable, Iterator, Mapping, NamedTuple, Sequence, Union, final, overload

SqlValue = Union[int, float, str, bytes, None]
# A sequence binds `?` placeholders in order; a mapping binds `:name`, `@name`
# and `$name` placeholders by name. bytes-like values (bytearray,
# memoryview) bind as blobs.
Parameters = Union[Sequence[Any], Mapping[str, Any]]

LOGGER_NAME: str  # "marsk_quorvi.storage.database": the Python logger the records go to
EXTRACTOR_VERSIONS_KEY: str
LAST_INDEX_KEY: str
FQN_COLLISION_ERROR: str
PARTIAL_PARSE_ERROR: str
COMPACT_DISK_MARGIN_BYTES: int
COMPACT_MIN_FREE_PAGES: int
COMPACT_MIN_FREE_RATIO: float
COMPACT_STEP_PAGES: int
COMPACT_CONVERT_MAX_BYTES: int

def reader_count() -> int:
    """Size of the read pool from QUORVI_DB_READERS, read at every call: 0 to 32, 6 by default."""

class Error(sqlite3.Error):
    """An SQLite failure of the storage layer; the message is SQLite's own."""
    sqlite_errorcode: int  # SQLite's (extended) result code; absent on the subclasses below that are not SQLite's

class OperationalError(sqlite3.OperationalError, Error):
    """Bad SQL (`near "X": syntax error`), a busy or locked file, a read-only file, I/O, a full disk."""

class NotAnIndexError(Error):
    """A file opened read-only that holds no index (empty, or without the index's tables)."""

class SchemaMigrationError(Error):
    """A failed migration step; the file keeps the version before that step."""

class ReaderUnavailable(Error):
    """The read pool cannot hand out a connection; Database never lets it out (it falls back to the writer)."""

@final
class Row:
    """One result row, like sqlite3.Row: row[0], row[-1], row[1:], row["name"] (any ASCII case), len(row),
    iteration, keys(), equality and hashing. Unknown names and indexes raise IndexError."""
    @overload
    def __getitem__(self, key: int | str) -> SqlValue: ...
    @overload
    def __getitem__(self, key: slice) -> tuple[SqlValue, ...]: ...
    def __len__(self) -> int: ...
    def __iter__(self) -> Iterator[SqlValue]: ...
    def __eq__(self, other: object) -> bool: ...
    def __hash__(self) -> int: ...
    def keys(self) -> list[str]: ...

class Compaction(NamedTuple):
    """What one compact() did: skipped is why nothing was done, or None."""
    converted: bool
    pages_released: int
    skipped: str | None

class PageCounts(NamedTuple):
    page_size: int
    page_count: int
    freelist_count: int

@final
class Cursor:
    """Runs one statement at a time. A write runs to its end in execute(); a read is stepped one row per fetch."""
    def execute(self, sql: str, parameters: Parameters = ()) -> Cursor: ...
    def executemany(self, sql: str, seq_of_parameters: Iterable[Parameters]) -> Cursor: ...
    def fetchone(self) -> Row | None: ...
    def fetchall(self) -> list[Row]: ...
    def __iter__(self) -> Cursor: ...
    def __next__(self) -> Row: ...
    @property
    def rowcount(self) -> int:
        """Rows changed by the last INSERT, UPDATE, DELETE or REPLACE (the total for executemany); -1 otherwise."""
    @property
    def lastrowid(self) -> int | None:
        """The rowid of the last row that execute() inserted with INSERT or REPLACE; None before the first."""
    @property
    def description(self) -> tuple[tuple[str, None, None, None, None, None, None], ...] | None:
        """The result columns of the statement last executed, as sqlite3 gives them; None when it has none."""
    def close(self) -> None: ...
    @property
    def closed(self) -> bool: ...

@final
class Connection:
    """The handle's writer connection. It takes none of the handle's locks: Database's own methods do."""
    def execute(self, sql: str, parameters: Parameters = ()) -> Cursor: ...
    def executescript(self, sql: str) -> None:
        """Several ;-separated statements without parameters (DDL scripts)."""
    @property
    def closed(self) -> bool: ...
    @property
    def path(self) -> str: ...

@final
class Transaction:
    """One scope of the handle's transaction, held by one thread from __enter__ to __exit__.

    The outermost scope begins and commits, or rolls back when its block raises (the exception goes on
    unchanged); a nested scope on the same thread joins the outermost. The cursor it yields is closed at the
    end of the block. Entered once; __exit__ on another thread raises ValueError."""
    def __enter__(self) -> Cursor: ...
    def __exit__(
        self, exc_type: type[BaseException] | None, exc: BaseException | None, tb: types.TracebackType | None
    ) -> bool: ...

class Database:
    """The handle of one repository's index file and every connection to it.

    Order of use: Database(path) (opens nothing), connect(), create_schema(), migrate_schema(),
    refresh_extractor_stamp(versions), then anything from any thread, and close(). Operations that need the
    connection raise RuntimeError before connect() and after close(). read_only=True opens an existing index
    for reading only: FileNotFoundError when missing, NotAnIndexError when it holds no index, RuntimeError
    on every write.
    """
    def __init__(self, path: str | os.PathLike[str], *, read_only: bool = False) -> None: ...
    @property
    def db_path(self) -> pathlib.Path:
        """The path given, as a pathlib.Path."""
    def connect(self) -> None:
        """Makes the directory (OSError when it cannot), opens the writer connection and the read pool."""
    def close(self) -> None:
        """Closes the read pool, then the writer, each after the work running on it. Harmless when repeated."""
    @property
    def closed(self) -> bool:
        """True once close() closed an open handle; False before connect()."""
    def connection(self) -> Connection:
        """The writer connection; RuntimeError "Database not connected. Call connect() first." or
        "Database is closed." without one."""
    def transaction(self) -> Transaction:
        """`with db.transaction() as cursor:` runs the block in a transaction (see Transaction)."""
    def execute(self, sql: str, parameters: Parameters = ()) -> Cursor:
        """One statement on the writer connection; the cursor holds its rows and its rowcount."""
    def executemany(self, sql: str, seq_of_parameters: Iterable[Parameters]) -> Cursor:
        """One DML statement once per parameter set, in order; rowcount is the total."""
    def fetchone(self, sql: str, parameters: Parameters = ()) -> Row | None:
        """The first row; on a read connection when possible, which never waits for a write in progress."""
    def fetchall(self, sql: str, parameters: Parameters = ()) -> list[Row]:
        """Every row; routed as fetchone()."""
    def create_schema(self) -> None:
        """The missing tables; existing ones are left alone."""
    def migrate_schema(self) -> None:
        """Migrates a file of an older build (SchemaMigrationError names the failed step)."""
    def index_generation(self) -> int:
        """The file header's user version: 0 in a new file, raised by every swap."""
    def refresh_extractor_stamp(self, versions: Mapping[str, int]) -> int:
        """Stores language -> extractor version and marks stale the files of every language whose version
        changed, in one transaction. Returns the files marked."""
    def clear_all(self) -> None:
        """Empties every index table in one transaction."""
    def swap_index_from(self, staging_path: str | os.PathLike[str]) -> dict[str, int]:
        """Replaces the index tables with the staging file's in one transaction that raises the generation,
        then compacts. Returns the rows copied per table, in table order. Any failure (FileNotFoundError for a
        missing file) changes neither file."""
    def get_stats(self) -> dict[str, int]:
        """files, symbols, edges, components, errors."""
    def check_integrity(self) -> bool:
        """SQLite's integrity check answered "ok"."""
    def record_error(self, file_path: str, error_type: str, message: str | None = None, line: int | None = None) -> None: ...
    def clear_file_errors(self, file_path: str, error_type: str | None = None) -> None:
        """All of a file's error rows, or those of one kind."""
    def get_error_count(self) -> int:
        """Files with at least one error row."""
    def compact(self) -> Compaction:
        """Gives free pages back to the file system in short steps. Never raises for what the database or the
        disk does: the result says why nothing was done. On a thread running an asyncio event loop it declines
        ("called on the event loop: a pool thread compacts"): run it with asyncio.to_thread instead."""
    def page_counts(self) -> PageCounts:
        """The file's pages now: read before and after compact() to see what it did."""
