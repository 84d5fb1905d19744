-- What an application does all day, for any schema: inserts, updates and deletes in all tables
-- that there are at this moment, with values of each column's type from the ordinary to the
-- edge and beyond what a fixed-width record holds.  Needs PostgreSQL 14.
--   SELECT work.begin(0.5)      the sequence of random choices, as of setseed()
--   CALL work.fill(rows)        so many rows for each table
--   CALL work.go(steps)         so many transactions of one to five statements
-- A table whose comment is "work: none" is left alone.
-- What a constraint, another session or a partition that is not there refuses is rolled back
-- and the transaction goes on without it.
CREATE SCHEMA work;

CREATE FUNCTION work.begin(seed float8) RETURNS void LANGUAGE sql AS $$
    SELECT setseed(seed);
    SELECT set_config('deadlock_timeout', '50ms', false);
$$;

CREATE FUNCTION work.below(n integer) RETURNS integer LANGUAGE sql AS
    $$ SELECT floor(random() * n)::integer $$;

CREATE FUNCTION work.one_of(choices text[]) RETURNS text LANGUAGE sql AS
    $$ SELECT choices[1 + work.below(cardinality(choices))] $$;

-- Text of so many characters of one script or of all; incompressible where it is long.
CREATE FUNCTION work.text(characters integer) RETURNS text LANGUAGE plpgsql AS $$
DECLARE
    alphabet text := work.one_of(ARRAY['abcdefghij klmnopqrst uvwxyz 0123456789',
        'The quick brown fox. ', 'äöüßéèñç€ÄÖÜ àô', 'Съешь же ещё этих мягких булок', 'いろはにほへと漢字仮名',
        E'a\tb\nc\\d''e"f|g,h;i\x7f', '🙂🚀👩‍👩‍👧é', 'أبجدهوزحطي', E'<b class="x">&amp;</b> {"k": [1]}\r\n']);
    made text := '';
BEGIN
    IF characters > 3000 THEN
        WHILE length(made) < characters LOOP
            made := made || md5(random()::text) || substr(alphabet, 1 + work.below(length(alphabet)), 1);
        END LOOP;
        RETURN left(made, characters);
    END IF;
    FOR i IN 1 .. characters LOOP
        made := made || substr(alphabet, 1 + work.below(length(alphabet)), 1);
    END LOOP;
    RETURN made;
END $$;

-- Mostly short, now and then longer than any default width, seldom longer than an item can be.
CREATE FUNCTION work.any_text() RETURNS text LANGUAGE plpgsql AS $$
DECLARE
    lot float8 := random();
BEGIN
    RETURN CASE WHEN lot < 0.05 THEN '' WHEN lot < 0.75 THEN work.text(1 + work.below(30))
        WHEN lot < 0.93 THEN work.text(1 + work.below(300)) WHEN lot < 0.98 THEN work.text(3100 + work.below(3000))
        WHEN lot < 0.995 THEN work.text(9000) ELSE work.text(40000) END;
END $$;

CREATE FUNCTION work.any_time(template text, infinite boolean) RETURNS text LANGUAGE plpgsql AS $$
DECLARE
    lot float8 := random();
BEGIN
    IF infinite AND lot < 0.08 THEN
        RETURN work.one_of(ARRAY['infinity', '-infinity', '0044-03-15 BC', '4713-01-01 BC', '12345-06-07', '294276-12-31']);
    END IF;
    RETURN to_char(timestamp '1900-01-01' + random() * interval '200 years', template);
END $$;

-- A value of a type as text that the type takes.
CREATE FUNCTION work.value(kind oid, modifier integer) RETURNS text LANGUAGE plpgsql AS $$
DECLARE
    t pg_type;
    lot float8 := random();
    digits integer;
    places integer;
    made text;
BEGIN
    SELECT * INTO t FROM pg_type WHERE oid = kind;
    IF t.typtype = 'd' THEN
        RETURN work.value(t.typbasetype, t.typtypmod);
    ELSIF t.typtype = 'e' THEN
        RETURN (SELECT enumlabel FROM pg_enum WHERE enumtypid = kind ORDER BY random() LIMIT 1);
    ELSIF t.typtype = 'c' THEN
        EXECUTE (SELECT 'SELECT (' || string_agg(format('%L::%s', work.value(atttypid, atttypmod),
                format_type(atttypid, atttypmod)), ',' ORDER BY attnum) || ')::text'
            FROM pg_attribute WHERE attrelid = t.typrelid AND attnum > 0 AND NOT attisdropped) INTO made;
        RETURN made;
    ELSIF t.typcategory = 'A' AND t.typelem <> 0 THEN
        IF lot < 0.1 THEN
            RETURN '{}';
        END IF;
        EXECUTE (SELECT format('SELECT ARRAY[%s]::text', string_agg(format('%L::%s',
                CASE WHEN random() < 0.9 THEN work.value(t.typelem, modifier) END,
                format_type(t.typelem, modifier)), ','))
            FROM generate_series(0, work.below(4))) INTO made;
        RETURN made;
    ELSIF t.typname IN ('int4range', 'int8range', 'numrange', 'daterange', 'tstzrange', 'span') THEN
        RETURN CASE WHEN lot < 0.2 THEN 'empty' WHEN lot < 0.4 THEN '(,)'
            WHEN t.typname = 'daterange' THEN '[2026-01-01,2026-02-' || 10 + work.below(19) || ')'
            WHEN t.typname = 'tstzrange' THEN '["2026-01-01 10:00:00+02",)'
            ELSE format('[%s,%s)', work.below(1000), 1000 + work.below(100000)) END;
    END IF;
    CASE t.typname
    WHEN 'int2' THEN
        RETURN work.one_of(ARRAY['-32768', '32767', '0', (work.below(65536) - 32768)::text, work.below(100)::text]);
    WHEN 'int4' THEN
        RETURN work.one_of(ARRAY['-2147483648', '2147483647', '0', '-1', work.below(2147483647)::text, work.below(1000)::text]);
    WHEN 'int8' THEN
        RETURN work.one_of(ARRAY['-9223372036854775808', '9223372036854775807', '0', work.below(100000)::text,
            (work.below(2147483647)::bigint * work.below(2147483647))::text]);
    WHEN 'oid' THEN
        RETURN work.one_of(ARRAY['0', '4294967295', work.below(2147483647)::text]);
    WHEN 'float4', 'float8' THEN
        RETURN CASE WHEN lot < 0.1 THEN work.one_of(ARRAY['NaN', 'Infinity', '-Infinity', '0', '-0', '1e-37', '3e38'])
            ELSE ((random() - 0.5) * 10.0 ^ (work.below(60) - 30))::float4::text END;
    WHEN 'numeric' THEN
        digits := CASE WHEN modifier < 0 THEN 1 + work.below(120) ELSE ((modifier - 4) >> 16) & 65535 END;
        places := CASE WHEN modifier < 0 THEN work.below(digits) ELSE ((modifier - 4) & 2047) - 2 * ((modifier - 4) & 1024) END;
        IF lot < 0.05 THEN
            RETURN 'NaN';
        ELSIF lot < 0.08 AND modifier < 0 AND current_setting('server_version_num')::integer >= 140000 THEN
            RETURN work.one_of(ARRAY['Infinity', '-Infinity']);
        ELSIF lot < 0.8 THEN
            digits := 1 + work.below(digits);
        END IF;
        SELECT string_agg(work.below(10)::text, '') INTO made FROM generate_series(1, digits);
        RETURN CASE WHEN random() < 0.3 THEN '-' ELSE '' END || made || 'e' || -places;
    WHEN 'money' THEN
        RETURN (CASE WHEN lot < 0.3 THEN -1 ELSE 1 END * work.below(2000000000) * 0.01)::text;
    WHEN 'bool' THEN
        RETURN CASE WHEN lot < 0.5 THEN 't' ELSE 'f' END;
    WHEN 'date' THEN
        RETURN work.any_time('YYYY-MM-DD', true);
    WHEN 'timestamp', 'timestamptz' THEN
        RETURN work.any_time(work.one_of(ARRAY['YYYY-MM-DD HH24:MI:SS', 'YYYY-MM-DD HH24:MI:SS.US']), true);
    WHEN 'time', 'timetz' THEN
        RETURN CASE WHEN lot < 0.1 THEN '24:00:00' ELSE work.any_time('HH24:MI:SS.MS', false) END ||
            CASE WHEN t.typname = 'time' THEN '' ELSE work.one_of(ARRAY['+00', '-11:30', '+05:45']) END;
    WHEN 'interval' THEN
        RETURN CASE WHEN modifier = -1 AND lot < 0.2 THEN '-178000000 years -11 mons'
            ELSE work.below(100000) || '.' || work.below(1000) || ' seconds' END;
    WHEN 'uuid' THEN
        RETURN md5(random()::text)::uuid::text;
    WHEN 'json', 'jsonb' THEN
        RETURN work.one_of(ARRAY['null', '[]', '{"a": 1, "a": 2}', json_build_object('text', work.any_text(),
            'n', work.below(1000), 'list', ARRAY[work.any_text()])::text]);
    WHEN 'xml' THEN
        RETURN '<t>' || replace(replace(replace(replace(work.text(work.below(400)), '&', ''), '<', ''), ']', ''), E'\x7f', '') || '</t>';
    WHEN 'bytea' THEN
        SELECT '\x' || coalesce(string_agg(md5(random()::text), ''), '') INTO made
            FROM generate_series(1, CASE WHEN lot < 0.9 THEN work.below(20) ELSE work.below(1000) END);
        RETURN made;
    WHEN 'bit', 'varbit' THEN
        SELECT string_agg(work.below(2)::text, '') INTO made
            FROM generate_series(1, CASE WHEN t.typname = 'bit' THEN modifier ELSE 1 + work.below(90) END);
        RETURN made;
    WHEN 'inet' THEN
        RETURN work.one_of(ARRAY['10.1.2.3', '192.168.0.0/16', '2001:db8:85a3:8d3:1319:8a2e:370:7348/64', '::1']);
    WHEN 'cidr' THEN
        RETURN work.one_of(ARRAY['10.1.2.3', '192.168.0.0/16', '2001:db8::/32']);
    WHEN 'macaddr', 'macaddr8' THEN
        RETURN '08:00:2b:01:02:' || lpad(to_hex(work.below(256)), 2, '0');
    WHEN 'point', 'lseg', 'path', 'box', 'polygon' THEN
        RETURN CASE WHEN t.typname = 'point' THEN format('(%s,1e-9)', random())
            ELSE format('((0,0),(%s,%s))', random(), work.below(1000)) END;
    WHEN 'circle' THEN
        RETURN format('<(1,2),%s>', random());
    WHEN 'line' THEN
        RETURN format('{1,%s,3}', random());
    WHEN 'tsvector' THEN
        RETURN to_tsvector('simple', work.any_text())::text;
    WHEN 'tsquery' THEN
        RETURN '''fat'' & (''rat'' | ''Kätzchen'')';
    WHEN 'hstore' THEN
        EXECUTE format('SELECT hstore(%L, %L)::text', work.text(3), work.any_text()) INTO made;
        RETURN made;
    WHEN 'tsmultirange' THEN
        RETURN '{[2026-01-01,2026-01-02), [2026-02-01,)}';
    WHEN 'tsrange' THEN
        RETURN '[2026-01-01,2026-01-02)';
    WHEN 'pg_lsn' THEN
        RETURN '16/B374D848';
    WHEN 'regtype' THEN
        RETURN work.one_of(ARRAY['integer', 'crm.mood', 'character varying']);
    WHEN 'char' THEN
        RETURN work.one_of(ARRAY['x', 'Y', '0']);
    WHEN 'name' THEN
        RETURN work.text(work.below(20));
    WHEN 'varchar', 'bpchar' THEN
        RETURN CASE WHEN modifier < 0 THEN work.any_text() WHEN lot < 0.4 THEN work.text(modifier - 4)
            ELSE work.text(work.below(modifier - 3)) END;
    WHEN 'text', 'citext' THEN
        RETURN work.any_text();
    ELSE
        RAISE 'the workload has no value of type %', t.typname;
    END CASE;
END $$;

-- An SQL expression with a value for a column.
CREATE FUNCTION work.expression(tab regclass, c pg_attribute) RETURNS text LANGUAGE plpgsql AS $$
DECLARE
    hint text := col_description(tab, c.attnum);
BEGIN
    IF hint LIKE 'work: %' THEN
        EXECUTE 'SELECT (' || substr(hint, 7) || ')::text' INTO hint;
    ELSIF NOT c.attnotnull AND random() < 0.15 THEN
        RETURN 'NULL';
    ELSE
        hint := work.value(c.atttypid, c.atttypmod);
    END IF;
    RETURN format('%L::%s', hint, format_type(c.atttypid, c.atttypmod));
END $$;

-- Columns that a statement may set.  Those that get a number of their own by a default are left
-- to it, and so are most of the others with a default.
CREATE FUNCTION work.columns(tab regclass, inserts boolean) RETURNS SETOF pg_attribute LANGUAGE sql AS $$
    SELECT a.* FROM pg_attribute a LEFT JOIN pg_attrdef d ON adrelid = attrelid AND adnum = attnum
    WHERE attrelid = tab AND attnum > 0 AND NOT attisdropped AND attgenerated = '' AND attidentity = ''
        AND (inserts OR random() < 0.4)
        AND (d.oid IS NULL OR random() < 0.2 AND pg_get_expr(adbin, adrelid) NOT LIKE 'nextval%')
    ORDER BY attnum
$$;

CREATE FUNCTION work.insert(tab regclass) RETURNS text LANGUAGE sql AS $$
    SELECT CASE WHEN count(*) = 0 THEN format('INSERT INTO %s DEFAULT VALUES', tab)
        ELSE format('INSERT INTO %s (%s) VALUES (%s)', tab, string_agg(quote_ident(attname), ', '),
            string_agg(work.expression(tab, c), ', ')) END
    FROM work.columns(tab, true) c
$$;

-- ONLY is for parents of inherited tables, whose rows have a table of their own; for a
-- partitioned table it would mean no row at all.
CREATE FUNCTION work.some_rows(tab regclass) RETURNS text LANGUAGE sql AS $$
    SELECT format('WHERE ctid = ANY (ARRAY(SELECT ctid FROM %s%s ORDER BY random() LIMIT %s))',
        CASE WHEN relkind = 'p' THEN '' ELSE 'ONLY ' END, tab, 1 + work.below(3))
    FROM pg_class WHERE oid = tab
$$;

CREATE FUNCTION work.update(tab regclass) RETURNS text LANGUAGE sql AS $$
    SELECT CASE WHEN count(*) = 0 THEN 'SELECT' ELSE format('UPDATE %s%s SET %s %s',
        (SELECT CASE WHEN relkind = 'p' THEN '' ELSE 'ONLY ' END FROM pg_class WHERE oid = tab), tab,
        string_agg(format('%I = %s', attname, work.expression(tab, c)), ', '), work.some_rows(tab)) END
    FROM work.columns(tab, false) c
$$;

CREATE FUNCTION work.delete(tab regclass) RETURNS text LANGUAGE sql AS $$
    SELECT format('DELETE FROM %s%s %s', CASE WHEN relkind = 'p' THEN '' ELSE 'ONLY ' END, tab, work.some_rows(tab))
    FROM pg_class WHERE oid = tab
$$;

CREATE VIEW work.tables AS
    SELECT c.oid::regclass AS tab FROM pg_class c JOIN pg_namespace n ON n.oid = relnamespace
    WHERE relkind IN ('r', 'p') AND NOT relispartition AND nspname !~ '^(pg_|information_schema$|work$|kestro$)'
        AND obj_description(c.oid, 'pg_class') IS DISTINCT FROM 'work: none';

-- One statement, given up where it is refused.
CREATE PROCEDURE work.try(statement text) LANGUAGE plpgsql AS $$
BEGIN
    EXECUTE statement;
EXCEPTION WHEN integrity_constraint_violation OR deadlock_detected OR serialization_failure OR undefined_table OR undefined_column
        OR undefined_object OR invalid_table_definition OR datatype_mismatch OR program_limit_exceeded THEN
    NULL;
END $$;

CREATE PROCEDURE work.fill(rows integer) LANGUAGE plpgsql AS $$
DECLARE
    tab regclass;
BEGIN
    FOR tab IN SELECT * FROM work.tables LOOP
        FOR i IN 1 .. rows LOOP
            CALL work.try(work.insert(tab));
        END LOOP;
        COMMIT;
    END LOOP;
END $$;

CREATE PROCEDURE work.go(steps integer) LANGUAGE plpgsql AS $$
DECLARE
    tab regclass;
    lot float8;
BEGIN
    FOR i IN 1 .. steps LOOP
        FOR j IN 0 .. work.below(5) LOOP
            SELECT * INTO tab FROM work.tables ORDER BY random() LIMIT 1;
            lot := random();
            CALL work.try(coalesce(CASE WHEN lot < 0.4 THEN work.insert(tab) WHEN lot < 0.85 THEN work.update(tab)
                ELSE work.delete(tab) END, 'SELECT'));
        END LOOP;
        IF random() < 0.05 THEN
            ROLLBACK;
        ELSE
            COMMIT;
        END IF;
    END LOOP;
END $$;
