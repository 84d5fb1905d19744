-- What releases do that once ended the capture of a whole database, or lost something of it
-- silently.  Each step is a transaction of its own, done once whatever happens to the server
-- meanwhile; one "once all is taken in" waits for that, else its rows may come as they are only.
-- What a step does to rows without an update of them the server tells nobody: where
-- a step does that, an update follows.

-- step: a new table, changed at once
CREATE TABLE crm.surveys (id serial PRIMARY KEY, question text, answers jsonb, due date);
INSERT INTO crm.surveys (question, answers) SELECT work.any_text(), '[1, 2]' FROM generate_series(1, 30);
UPDATE crm.surveys SET due = '2026-12-24' WHERE id % 2 = 0;
DELETE FROM crm.surveys WHERE id % 7 = 0;

-- step: new partitions
CREATE TABLE measurements_and_telemetry_of_all_sites.readings_west
    PARTITION OF measurements_and_telemetry_of_all_sites.readings FOR VALUES IN ('west');
INSERT INTO measurements_and_telemetry_of_all_sites.readings SELECT n, 'west', '2026-05-05', n, NULL, 1, 'west'
    FROM generate_series(1, 20) n;
CREATE TABLE "Billing Dept."."Ledger 2026 H2" PARTITION OF "Billing Dept.".ledger
    FOR VALUES FROM ('2026-07-01') TO ('2027-01-01');
INSERT INTO "Billing Dept.".ledger SELECT date '2026-07-01' + n, n, n, NULL, 'опись ' || n FROM generate_series(1, 30) n;

-- step: new columns
ALTER TABLE topics ADD COLUMN slow_mode_seconds integer NOT NULL DEFAULT 7, ADD COLUMN "Subtítulo" text;
UPDATE topics SET slow_mode_seconds = slow_mode_seconds;
ALTER TABLE crm.customers ADD COLUMN labels text[], DROP COLUMN address_line_3;
UPDATE crm.customers SET labels = ARRAY['a', NULL, work.any_text()];

-- step: once all is taken in: a value that a strict table does not take
INSERT INTO crm.strict (note) SELECT md5(n::text) FROM generate_series(1, 10) n;
INSERT INTO crm.strict (note) VALUES (repeat('x', 2000));
UPDATE crm.strict SET note = 'behind it' WHERE id % 2 = 0;

-- step: truncates, of one table and of several, with rows around them
INSERT INTO jobs (queue, handler) SELECT 'q', work.any_text() FROM generate_series(1, 20);
TRUNCATE jobs;
INSERT INTO jobs (queue, handler) SELECT 'r', work.any_text() FROM generate_series(1, 5);
TRUNCATE posts, drafts, crm.contacts RESTART IDENTITY;

-- step: truncates of what depends on another, is a part of one, or is inherited from
TRUNCATE crm.customers CASCADE;
TRUNCATE "Billing Dept.".ledger;
TRUNCATE crm.party;
INSERT INTO crm.customers ("Name") SELECT 'after ' || n FROM generate_series(1, 20) n;
INSERT INTO "Billing Dept.".ledger SELECT date '2026-03-01' + n, n, n, NULL, 'после' FROM generate_series(1, 10) n;

-- step: a table is renamed
ALTER TABLE settings RENAME TO "Settings of the site";

-- step: and changed under its new name
INSERT INTO "Settings of the site" VALUES ('after the rename', work.any_text(), 1);

-- step: changed types
ALTER TABLE user_auth_tokens ALTER COLUMN user_id TYPE bigint;
ALTER TABLE categories ALTER COLUMN name TYPE varchar(200);
UPDATE categories SET name = repeat('категория ', 19);
ALTER TABLE "Billing Dept.".payments ALTER COLUMN fx TYPE numeric(12,4) USING 1.5;
UPDATE "Billing Dept.".payments SET fx = fx + 1;

-- step: a table moves to another schema, another one gets its name
ALTER TABLE kb.places SET SCHEMA crm;
CREATE TABLE kb.places (name text PRIMARY KEY, lat real, lon real);
INSERT INTO kb.places SELECT 'place ' || n, n, -n FROM generate_series(1, 15) n;
UPDATE crm.places SET seen = '[1,2)';

-- step: two tables change their names with each other
ALTER TABLE crm.leads RENAME TO leads_of_old;
ALTER TABLE crm."Leads" RENAME TO leads;
ALTER TABLE crm.leads_of_old RENAME TO "Leads";

-- step: and are changed
INSERT INTO crm."Leads" (source) SELECT 'new ' || n FROM generate_series(1, 5) n;
INSERT INTO crm.leads ("Id", "Source") SELECT 100000 + n, 'old' FROM generate_series(1, 5) n;

-- step: a layout that cannot be made: its record would be longer than the log takes
DO $$ BEGIN
    EXECUTE 'CREATE TABLE crm.bits (id serial PRIMARY KEY, note text, '
        || (SELECT string_agg(format('b%s bit(32767)', n), ', ') FROM generate_series(1, 1500) n) || ')';
END $$;
COMMENT ON TABLE crm.bits IS 'work: none';

-- step: and rows of it
INSERT INTO crm.bits (note) SELECT work.any_text() FROM generate_series(1, 5);
INSERT INTO crm.customers ("Name") VALUES ('beside it');

-- step: an identity is taken away where old rows are needed whole
ALTER TABLE crm.keyed REPLICA IDENTITY DEFAULT;

-- step: once all is taken in: and such a row changes
INSERT INTO crm.keyed (a, b) SELECT md5(n::text), 'b' FROM generate_series(1, 10) n;
UPDATE crm.keyed SET a = 'changed';

-- step: identities are taken away elsewhere
ALTER TABLE crm.whole REPLICA IDENTITY DEFAULT;
UPDATE crm.whole SET c = '\x01';
ALTER TABLE crm.key_only REPLICA IDENTITY NOTHING;
ALTER TABLE translations DROP CONSTRAINT translations_pkey;

-- step: keys come and go
ALTER TABLE permissions ADD COLUMN id serial PRIMARY KEY;
UPDATE permissions SET permission_type = 3;
ALTER TABLE schema_migrations DROP CONSTRAINT schema_migrations_pkey;

-- step: changes of those
UPDATE crm.key_only SET d = work.any_text();
UPDATE translations SET value = work.any_text();
UPDATE schema_migrations SET version = version || '.';

-- step: a table is dropped with its rows
DROP TABLE crm.calls;
DROP TABLE склад.counts;

-- step: and another one has its name
CREATE TABLE crm.calls (number text PRIMARY KEY, minutes integer);
INSERT INTO crm.calls SELECT '+49 ' || n, n FROM generate_series(1, 20) n;

-- step: a partitioned table goes with all its partitions, and comes again as a plain one
DROP TABLE measurements_and_telemetry_of_all_sites.events;
CREATE TABLE measurements_and_telemetry_of_all_sites.events (kind smallint, note text);
INSERT INTO measurements_and_telemetry_of_all_sites.events SELECT n, 'plain' FROM generate_series(1, 20) n;
UPDATE measurements_and_telemetry_of_all_sites.events SET note = 'changed' WHERE kind < 5;

-- step: truncated, dropped and made anew at once
TRUNCATE crm.surveys;
DROP TABLE crm.surveys;
CREATE TABLE crm.surveys (code varchar(12) PRIMARY KEY, question text);
INSERT INTO crm.surveys SELECT 's' || n, work.any_text() FROM generate_series(1, 20) n;
