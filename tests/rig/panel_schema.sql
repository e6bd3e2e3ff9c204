-- The control panel's database as far as mailtend reads it. Loaded once into the template
-- datadir (the bootstrap that loads it cannot create users: admin is made at server start).
CREATE DATABASE zrn CHARACTER SET utf8mb4;
USE zrn;

CREATE TABLE Limits (
    id INT UNSIGNED NOT NULL,
    limit_name VARCHAR(64) NOT NULL,
    value BIGINT NOT NULL,
    PRIMARY KEY (id, limit_name)
) ENGINE=InnoDB;

CREATE TABLE domains (
    id INT UNSIGNED NOT NULL AUTO_INCREMENT,
    name VARCHAR(255) NOT NULL,
    limits_id INT UNSIGNED NULL,
    PRIMARY KEY (id),
    UNIQUE KEY name (name)
) ENGINE=InnoDB;

CREATE TABLE domainaliases (
    id INT UNSIGNED NOT NULL AUTO_INCREMENT,
    dom_id INT UNSIGNED NOT NULL,
    name VARCHAR(255) NOT NULL,
    PRIMARY KEY (id),
    UNIQUE KEY name (name),
    KEY dom_id (dom_id)
) ENGINE=InnoDB;

-- mbox_quota -1: no quota of the mailbox's own (the domain's default applies)
CREATE TABLE mail (
    id INT UNSIGNED NOT NULL AUTO_INCREMENT,
    dom_id INT UNSIGNED NOT NULL,
    mail_name VARCHAR(245) NOT NULL,
    mbox_quota BIGINT NOT NULL DEFAULT -1,
    PRIMARY KEY (id),
    UNIQUE KEY dom_id (dom_id, mail_name)
) ENGINE=InnoDB;

CREATE TABLE mail_aliases (
    id INT UNSIGNED NOT NULL AUTO_INCREMENT,
    mn_id INT UNSIGNED NOT NULL,
    alias VARCHAR(245) NOT NULL,
    PRIMARY KEY (id),
    UNIQUE KEY mn_id (mn_id, alias)
) ENGINE=InnoDB;

CREATE TABLE misc (
    param VARCHAR(245) NOT NULL,
    val VARCHAR(255) NULL,
    PRIMARY KEY (param)
) ENGINE=InnoDB;
