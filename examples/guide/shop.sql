-- The database that docs/guide.md follows.
CREATE TABLE customers (
    id int PRIMARY KEY,
    name varchar(40) NOT NULL,
    since date
);
CREATE TABLE orders (
    id int PRIMARY KEY,
    customer int NOT NULL REFERENCES customers,
    amount numeric(9,2) NOT NULL,
    paid boolean NOT NULL DEFAULT false,
    note text
);
INSERT INTO customers VALUES (1, 'Anna Berg', '2024-03-01'), (2, 'Ümit Öz', NULL);
INSERT INTO orders VALUES (1, 1, 25.90, true, 'by Friday'), (2, 2, 310, false, NULL);
