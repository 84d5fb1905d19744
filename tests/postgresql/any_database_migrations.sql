-- What the application's releases change while it runs: tables, partitions, columns and types
-- come, change and go.  What a change does to the rows that there are, other than an update, the
-- server tells nobody: each new column is filled by an update, and a table is emptied by a
-- delete before it goes.
CREATE TABLE crm.campaigns (id serial PRIMARY KEY, name text, budget "Billing Dept.".amount, state crm.mood);
INSERT INTO crm.campaigns (name, budget) SELECT 'campaign ' || n, n * 10 FROM generate_series(1, 20) n;
UPDATE crm.campaigns SET budget = budget + 1, state = 'happy' WHERE id % 2 = 0;
DELETE FROM crm.campaigns WHERE id % 5 = 0;
SELECT pg_sleep(0.2);

-- without a key, changed at once in the same transaction
BEGIN;
CREATE TABLE crm.clicks (campaign integer, at timestamptz DEFAULT now(), agent text);
INSERT INTO crm.clicks (campaign, agent) SELECT n, repeat('Mozilla/5.0 ', n) FROM generate_series(1, 40) n;
UPDATE crm.clicks SET agent = 'unknown' WHERE campaign < 5;
DELETE FROM crm.clicks WHERE campaign > 35;
COMMIT;
CREATE TABLE crm.clicks_by_day AS SELECT date_trunc('day', at) AS day, count(*) FROM crm.clicks GROUP BY 1;
UPDATE crm.clicks_by_day SET count = count + 1;
SELECT pg_sleep(0.2);

-- partitions
CREATE TABLE measurements_and_telemetry_of_all_sites.readings_east
    PARTITION OF measurements_and_telemetry_of_all_sites.readings FOR VALUES IN ('east');
INSERT INTO measurements_and_telemetry_of_all_sites.readings VALUES
    (1, 'east', '2026-05-05 05:05:05', 1.5, NULL, 1, 'to be deleted'), (2, 'east', '2026-05-05', 2, '\x00ff', 2, 'to be kept');
UPDATE measurements_and_telemetry_of_all_sites.readings SET value = value + 1 WHERE region = 'east';
DELETE FROM measurements_and_telemetry_of_all_sites.readings WHERE note = 'to be deleted';
UPDATE measurements_and_telemetry_of_all_sites.readings SET region = 'north' WHERE note = 'to be kept';
CREATE TABLE "Billing Dept."."Ledger 2026 H2" PARTITION OF "Billing Dept.".ledger
    FOR VALUES FROM ('2026-07-01') TO ('2027-01-01');
INSERT INTO "Billing Dept.".ledger SELECT date '2026-07-01' + n, n, n, NULL, 'опись ' || n FROM generate_series(1, 30) n;
DELETE FROM "Billing Dept.".ledger WHERE account % 3 = 0;
CREATE TABLE crm.feed (id bigint, kind text, body jsonb) PARTITION BY LIST (kind);
ALTER TABLE crm.feed REPLICA IDENTITY FULL;
CREATE TABLE crm.feed_a PARTITION OF crm.feed FOR VALUES IN ('a');
INSERT INTO crm.feed SELECT n, 'a', '{"n": 1}' FROM generate_series(1, 20) n;
CREATE TABLE crm.feed_b PARTITION OF crm.feed FOR VALUES IN ('b');
INSERT INTO crm.feed SELECT n, 'b', '{"n": 2}' FROM generate_series(1, 20) n;
DELETE FROM crm.feed WHERE id < 5;
UPDATE crm.feed SET kind = 'a' WHERE id < 9;
CREATE TABLE measurements_and_telemetry_of_all_sites.readings_west
    (LIKE measurements_and_telemetry_of_all_sites.readings INCLUDING ALL);
ALTER TABLE measurements_and_telemetry_of_all_sites.readings
    ATTACH PARTITION measurements_and_telemetry_of_all_sites.readings_west FOR VALUES IN ('west');
SELECT pg_sleep(0.2);

-- columns
ALTER TABLE topics ADD COLUMN slow_mode_seconds integer NOT NULL DEFAULT 0, ADD COLUMN "Subtítulo" text;
UPDATE topics SET slow_mode_seconds = id % 100, "Subtítulo" = work.any_text();
ALTER TABLE posts DROP COLUMN image_upload_id;
ALTER TABLE users RENAME COLUMN karma TO reputation;
UPDATE users SET reputation = id;
ALTER TABLE user_auth_tokens ALTER COLUMN user_id TYPE bigint;
ALTER TABLE categories ALTER COLUMN name TYPE varchar(200);
UPDATE categories SET name = repeat('категория ', 19);
ALTER TYPE crm.mood ADD VALUE 'überwältigt' BEFORE 'so so';
UPDATE crm.customers SET mood = 'überwältigt' WHERE id % 7 = 0;
CREATE TYPE crm.channel AS ENUM ('web', 'phone', 'Brief');
ALTER TABLE crm.customers ADD COLUMN channel crm.channel, ADD COLUMN labels text[];
UPDATE crm.customers SET channel = 'Brief', labels = ARRAY['a', NULL, work.any_text()];
CREATE DOMAIN crm.stars AS numeric(2,1);
ALTER TABLE crm."Leads" ADD COLUMN stars crm.stars;
UPDATE crm."Leads" SET stars = 4.5;
SELECT pg_sleep(0.2);

-- a key comes, a key goes, an identity is taken away
ALTER TABLE permissions ADD COLUMN id serial PRIMARY KEY;
UPDATE permissions SET permission_type = 3;
ALTER TABLE drafts REPLICA IDENTITY FULL;
UPDATE drafts SET sequence = 7;
ALTER TABLE crm.whole REPLICA IDENTITY DEFAULT;
UPDATE crm.whole SET c = '\x01';

-- tables that are gone, and names that come again with another meaning
CREATE TABLE temporary_import (a integer, b text);
INSERT INTO temporary_import SELECT n, 'x' FROM generate_series(1, 30) n;
BEGIN;
LOCK TABLE temporary_import;
DELETE FROM temporary_import;
DROP TABLE temporary_import;
COMMIT;
CREATE TABLE temporary_import (b text PRIMARY KEY, c numeric(5,2));
INSERT INTO temporary_import VALUES ('y', 1.25), ('z', NULL);
UPDATE temporary_import SET c = 2;
CREATE SCHEMA "Neu & ungewöhnlich";
CREATE TABLE "Neu & ungewöhnlich"."Tabelle №1" ("Spalte" text, "spalte" text, "SPALTE" text);
INSERT INTO "Neu & ungewöhnlich"."Tabelle №1" SELECT 'a', 'b', n FROM generate_series(1, 20) n;
UPDATE "Neu & ungewöhnlich"."Tabelle №1" SET "spalte" = 'c' WHERE "SPALTE" < '15';
DELETE FROM "Neu & ungewöhnlich"."Tabelle №1" WHERE "SPALTE" = '3';
