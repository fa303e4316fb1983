// Rows in an order: by arrival, or by a column.

/** Rows by falling number. Arrivals are added at the front, pages from the past at the end, at no cost. */
class Deck {
  newer = [];  // rising
  older = [];  // falling

  get length() { return this.newer.length + this.older.length; }

  addNewer(row) { this.newer.push(row); }
  addOlder(row) { this.older.push(row); }

  at(index) {
    const {newer, older} = this;
    return index < newer.length ? newer[newer.length - 1 - index] : older[index - newer.length];
  }

  /** Where row number `n` is, or -1. */
  indexOf(n) {
    let low = 0, high = this.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (this.at(middle).n > n) low = middle + 1; else high = middle;
    }
    return low < this.length && this.at(low).n === n ? low : -1;
  }

  /** Forgets the rows before number `n`. */
  dropBefore(n) {
    const {newer, older} = this;
    while (older.length && older[older.length - 1].n < n) older.pop();
    if (older.length) return;
    let count = 0;
    while (count < newer.length && newer[count].n < n) ++count;
    newer.splice(0, count);
  }
}

/** What a column is sorted by: a number or a text, capitals as small letters. */
const SORT_KEYS = {
  received: (row) => row.n,
  lag: (row) => row.lagMs ?? Infinity,
  ...Object.fromEntries(["table", "name", "session", "user", "time", "state"]
    .map((column) => [column, (row) => row[column].toLowerCase()])),
};

/** Rows by a column, equal ones by falling number. Rows that are added are sorted in when one is next asked for. */
class SortedDeck {
  rows = [];
  added = [];

  constructor({column, isFalling}) {
    this.keyOf = SORT_KEYS[column];
    const sign = isFalling ? -1 : 1;
    this.compare = (a, b) => (a.key < b.key ? -sign : a.key > b.key ? sign : b.n - a.n);
  }

  get length() { return this.merged().length; }

  at(index) { return this.merged()[index]; }
  indexOf(n) { return this.merged().findIndex((row) => row.n === n); }

  addNewer(row) {
    row.key = this.keyOf(row);
    this.added.push(row);
  }
  addOlder(row) { this.addNewer(row); }

  dropBefore(n) { this.rows = this.merged().filter((row) => row.n >= n); }

  merged() {
    const {rows, added, compare} = this;
    if (added.length === 0) return rows;
    added.sort(compare);
    const merged = new Array(rows.length + added.length);
    for (let i = 0, old = 0, fresh = 0; i < merged.length; ++i) {
      const isOld = fresh === added.length || (old < rows.length && compare(rows[old], added[fresh]) < 0);
      merged[i] = isOld ? rows[old++] : added[fresh++];
    }
    this.added = [];
    return (this.rows = merged);
  }
}
